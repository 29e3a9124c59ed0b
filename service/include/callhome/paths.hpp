// Default location of the service's database (the socket's is platform::default_socket_path).
#pragma once

#include <string>

namespace callhome {

// $XDG_STATE_HOME/callhome/callhome.db; else ~/.local/state/callhome/callhome.db.
std::string default_db_path();
// Creates the parent directories of `path` (mode 0700 for the ones it creates).
// Returns false (errno set) on failure.
bool make_parent_dirs(const std::string &path);

} // namespace callhome
