#pragma once

#include <iosfwd>
#include <string>

namespace morvane::cli {

struct CopiesOptions {
    enum class Action { enable, disable, sync, status, list, remove };
    Action action = Action::status;
    std::string folder;
    bool json = false;
};

// `morvane copies enable --folder PATH | disable | sync | status [--json] | list [--json] |
// remove`: the copies of the restore points in a folder that a sync tool shares between the
// user's computers. `enable` names the folder (which must exist), turns copies on and copies at
// once; `sync` copies now; `remove` deletes this computer's copies, not the other computers'.
// A failed copy is reported on `err` with exit 1.
int runCopies(const CopiesOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
