#pragma once

/**
 * Deliberate departure: assistive technologies see the dialogs as what they
 * are. Plain widgets report a generic client area; the dialogs report the
 * dialog role (the message box the alert role), named by their title.
 */
namespace DialogAccessibility {

// Registers the dialogs' accessibility factory once; safe to call again.
void install();

} // namespace DialogAccessibility
