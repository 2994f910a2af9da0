#pragma once

class QMessageBox;

// Sets up a message box so that the window manager shows its whole title beside its buttons,
// the message wraps in lines of a readable length, and every text can be selected and copied,
// into a report for instance. Call again after changing its texts.
void makeReadable(QMessageBox& alert);
