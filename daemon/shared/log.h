// The daemon's log, which never makes a process wait.
#pragma once

#include <cstdarg>
#include <cstdint>

/// Opens the log: syslog's socket and, with `to_stderr`, standard error as well. Forked processes
/// may keep using it. Threads: one at a time.
void OpenLog(bool to_stderr);

/// Writes one line of the given syslog(3) priority. What a terminal or a journal does not print is
/// escaped (`Escape`), and what does not fit into 2 KiB after that is cut off. A line that cannot
/// be written at once is dropped and counted; the next line that can be written is preceded by
/// their number. Throws nothing, allocates nothing, and leaves `errno` as it was.
[[gnu::format(printf, 2, 3)]] void Log(int priority, const char* format, ...) noexcept;
[[gnu::format(printf, 2, 0)]] void VLog(int priority, const char* format,
                                        va_list arguments) noexcept;

/// Writes the number of dropped lines, if there are any and this can be done without waiting.
/// Returns how many were dropped since the last call.
std::uint64_t ReportLostLines() noexcept;
