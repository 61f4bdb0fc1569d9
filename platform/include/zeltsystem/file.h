// Small file operations.
#pragma once

/// Creates an empty file when there is none at `path`, with the mode that the process's umask
/// leaves of 0666; an existing file is left as it is. Returns 0 on success.
int QLIBCFileTouch(const char* path);
