#pragma once

class QSize;
class QWidget;

/**
 * Deliberate departure: sizes never double-scale. The display scale is the
 * logical DPI / 96, but fonts (and so every size a layout derives from
 * them) already follow the DPI; multiplying a fitted size by the full scale
 * scaled it twice and pushed dialogs off the screen at 192 dpi.
 */
namespace DialogGeometry {

// The part of `scale` the widget's fonts have not already applied (>= 1).
float remainingScale(const QWidget *widget, float scale);

// `size` bounded by the available geometry of the widget's screen.
QSize boundedToScreen(const QWidget *widget, const QSize &size);

// Centres the window in its screen's available geometry.
void centre(QWidget *window);

} // namespace DialogGeometry
