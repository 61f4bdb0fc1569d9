// The daemon's log, which never makes a worker wait.
#pragma once

/// Opens the log: syslog's socket and, with `to_stderr`, standard error as well. Forked processes
/// may keep using it. Threads: one at a time.
void OpenLog(bool to_stderr);

/// Writes one line of the given syslog(3) priority, cut at 2 KiB. A line that cannot be written at
/// once is dropped and counted; the next line that can be written is preceded by their number.
/// Control characters, U+0080 to U+009F, DEL, bidirectional controls, line separators and bytes
/// that are not UTF-8 are escaped.
[[gnu::format(printf, 2, 3)]] void Log(int priority, const char* format, ...);

/// Writes the number of dropped lines, if there are any and this can be done without waiting.
void ReportLostLines();
