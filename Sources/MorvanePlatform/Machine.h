#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

// This computer: an identifier that stays when the computer is renamed, and the name people
// know it by. Copies shared between the user's computers go by the identifier.
class Machine : public Replaceable<Machine> {
public:
    virtual ~Machine() = default;

    // Nothing when the system keeps no identifier.
    virtual std::optional<std::string> identifier() const = 0;
    // The host name; nothing when it is empty or can't be read.
    virtual std::optional<std::string> name() const = 0;

    // The identifier kept in a machine-id file: its first line without blanks around it;
    // nothing for a missing, unreadable or empty file.
    static std::optional<std::string> identifierIn(const std::filesystem::path& file);

    // The real implementation: /etc/machine-id and gethostname.
    static Machine& system();
};

} // namespace morvane
