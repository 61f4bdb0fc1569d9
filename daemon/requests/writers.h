// Who may write to the files that decide what tokens grant.
#pragma once

#include <string>
#include <vector>

/// Returns a line for each of them that anybody but root may write to, sorted: `PATH: it is
/// writable by user "alice"`. They are the installed configurations in `installed_config`, the
/// packages with their privilege files, and all directories above. What cannot be listed is left
/// out.
std::vector<std::string> ForeignWriters(const std::string& installed_config);
