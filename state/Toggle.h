// Feature toggles: named booleans that an operator keeps in toggle files, one flat JSON object of booleans a
// file. A process asks for a toggle early and keeps the answer; whoever loads a plug-in sets overrides and
// the directory before that. A malformed file counts as absent and is reported by one level-0 trace line of
// facility "State".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace State {

/// The state of toggle `name`: what was set by toggleOverrideIs, else its value in `file` (a name within the
/// toggle directory), else `defaultValue`. Reads the file at every call; remembers that the toggle was asked
/// for.
bool getToggleState(std::string_view name, std::string_view file, bool defaultValue);

/// Sets a toggle for this process, whatever the files say. Answers already given stay as they are.
void toggleOverrideIs(std::string_view name, bool value);

/// The directory of the toggle files. Without it: the environment's KESTREL_TOGGLE_DIR, else /etc/kestrel-nat.
/// An empty path goes back to those.
void toggleDirectoryIs(std::string_view path);
std::string toggleDirectory();

enum class ToggleOrigin { defaultValue, file, overridden };

/// A toggle that was asked for, with the latest answer and where that came from.
struct ToggleStatus {
    std::string name;
    std::string file;
    bool value;
    ToggleOrigin origin;
};

/// The toggles asked for so far, each once, in the order of their first question.
std::vector<ToggleStatus> toggles();

} // namespace State
