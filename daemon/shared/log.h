// The daemon's log, which never makes a worker wait.
#pragma once

/// Opens the log: syslog's socket and, with `to_stderr`, standard error as well. Each forked
/// process may go on with it. Threads: one at a time.
void OpenLog(bool to_stderr);

/// Writes one line of the given syslog(3) priority, cut at 2 KiB. A line that cannot be written at
/// once is dropped and counted; the next line that can be is preceded by how many were. Control
/// characters, U+0080 to U+009F, DEL, bidirectional controls, line separators and bytes that are no
/// UTF-8 are escaped.
[[gnu::format(printf, 2, 3)]] void Log(int priority, const char* format, ...);

/// Writes how many lines were dropped, if any were and it can be written.
void ReportLostLines();
