#include "DialogAccessibility.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QLineEdit>
#include <QWidget>

namespace DialogAccessibility {

namespace {
const char pinFieldProperty[] = "zruiPinField";

// A PIN field as assistive tools see it: a named password field whose value is
// masked and which offers no text to read, also while the PIN is shown.
class PinFieldInterface : public QAccessibleWidget
{
public:
    explicit PinFieldInterface(QLineEdit *edit)
        : QAccessibleWidget(edit, QAccessible::EditableText)
    { }
    QAccessible::State state() const override
    {
        QAccessible::State s = QAccessibleWidget::state();
        s.editable = true;
        s.passwordEdit = true;
        return s;
    }
    QString text(QAccessible::Text t) const override
    {
        if (t == QAccessible::Value)
            return QString(static_cast<QLineEdit *>(widget())->text().size(), QLatin1Char('*'));
        return QAccessibleWidget::text(t);
    }
};

QAccessibleInterface *dialogInterface(const QString &className, QObject *object)
{
    if (!object || !object->isWidgetType())
        return nullptr;
    auto *widget = static_cast<QWidget *>(object);
    if (className == QLatin1String("QLineEdit") && object->property(pinFieldProperty).toBool())
        return new PinFieldInterface(static_cast<QLineEdit *>(widget));
    if (className == QLatin1String("MessageDialog"))
        return new QAccessibleWidget(widget, QAccessible::AlertMessage);
    if (className == QLatin1String("PINDialog") || className == QLatin1String("CertListDialog")
        || className == QLatin1String("WaitingDialog"))
        return new QAccessibleWidget(widget, QAccessible::Dialog);
    return nullptr;
}
} // namespace

void install()
{
    static const bool installed = [] {
        QAccessible::installFactory(dialogInterface);
        return true;
    }();
    Q_UNUSED(installed)
}

void markPinField(QLineEdit *edit)
{
    install();
    edit->setProperty(pinFieldProperty, true);
    // An interface made before the mark would stay cached.
    if (QAccessibleInterface *earlier = QAccessible::queryAccessibleInterface(edit))
        QAccessible::deleteAccessibleInterface(QAccessible::uniqueId(earlier));
}

} // namespace DialogAccessibility
