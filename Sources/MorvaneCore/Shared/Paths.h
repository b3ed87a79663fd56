#pragma once

#include <string>
#include <string_view>
#include <vector>

// Path texts, handled as text: nothing here touches the disk. The rules are those users of the
// system see in titles and identifiers, so trailing slashes are ignored and "/" stays "/".
namespace morvane::paths {

// "/a/b/" gives "b"; "/" gives "/"; "" gives "".
std::string lastComponent(std::string_view path);

// "/a/b" gives "/a"; "/a" gives "/"; "a" gives ""; "/" gives "/".
std::string deletingLastComponent(std::string_view path);

// "/a/b" gives {"/", "a", "b"}; "a//b/" gives {"a", "b"}.
std::vector<std::string> components(std::string_view path);

// A leading "~" or "~/" becomes the home folder (UserFolders); "~name" that user's home.
std::string expandingTilde(std::string_view path);

// The home folder at the start of the path, as a whole component, becomes "~".
std::string abbreviatingWithTilde(std::string_view path);

} // namespace morvane::paths
