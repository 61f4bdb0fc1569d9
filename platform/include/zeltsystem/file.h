// Small file operations.
#pragma once

/// Creates an empty file at `path` with mode 0666 less the process's umask. Does not change an
/// existing file. Returns 0 on success.
int QLIBCFileTouch(const char* path);
