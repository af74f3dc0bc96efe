#include "DialogGeometry.h"

#include <QGuiApplication>
#include <QScreen>
#include <QSize>
#include <QWidget>

namespace DialogGeometry {

namespace {
QRect available(const QWidget *widget)
{
    const QScreen *screen = widget->screen() ? widget->screen() : QGuiApplication::primaryScreen();
    return screen ? screen->availableGeometry() : QRect();
}
} // namespace

float remainingScale(const QWidget *widget, float scale)
{
    const float fontScale = float(widget->logicalDpiX()) / 96.0f;
    return fontScale > 0.0f ? qMax(1.0f, scale / fontScale) : scale;
}

QSize boundedToScreen(const QWidget *widget, const QSize &size)
{
    const QRect area = available(widget);
    return area.isEmpty() ? size : size.boundedTo(area.size());
}

void centre(QWidget *window)
{
    const QRect area = available(window);
    if (area.isEmpty())
        return;
    window->move(area.x() + (area.width() - window->width()) / 2,
                 area.y() + (area.height() - window->height()) / 2);
}

} // namespace DialogGeometry
