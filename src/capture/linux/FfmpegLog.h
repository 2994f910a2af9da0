#pragma once

#include <QString>

// FFmpeg's libraries write their log to the console, which Tessarel never does. Once routed,
// every line stays off the console; the error lines are kept for the thread whose call logged
// them, so that the failure they explain can carry FFmpeg's own words.
//
// Threads: any.
void routeFfmpegLog();
// The error lines logged on this thread since the last call, joined; empty when none.
QString takeFfmpegErrors();
