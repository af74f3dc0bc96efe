// Not compiled: read only by the `lupdate` target.
//
// Message keys whose display texts exist only in the translation files. The
// dialogs pass them to tr() through a variable, which lupdate cannot follow;
// listed here, they survive `lupdate -no-obsolete` with their translations.

#include <QtGlobal>

static const char *const zruiTranslationKeys[] = {
        QT_TRANSLATE_NOOP("PINDialog", "IDC_CUSTOM_PIN_ANNOTATION"),
        QT_TRANSLATE_NOOP("PINDialog", "IDC_CUSTOM_PIN_ANNOTATION_2"),
        QT_TRANSLATE_NOOP("PINDialog", "comment_passwdinfo_verify"),
        QT_TRANSLATE_NOOP("MessageDialog", "Title_Warning"),
        QT_TRANSLATE_NOOP("MessageDialog", "PIN_Locked"),
        QT_TRANSLATE_NOOP("MessageDialog", "SPACE_FULL_Hint"),
};
