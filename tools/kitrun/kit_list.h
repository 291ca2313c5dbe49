#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace kitrun {

/// Something that keeps the kit from running, told in words.
class KitError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// One test of the list that the kit was packed with.
struct KitTest {
    std::string label;
    std::string name;
    DWORD seconds = 0;  ///< time limit
    std::string program;
    std::string arguments;
    std::string environment;  ///< one NAME=VALUE, or empty
};

struct KitList {
    std::string version;
    std::vector<KitTest> tests;
};

/// What a test may need, in the order in which the tests run. The last ones never run on Windows.
inline const std::vector<std::string> kLabels = {"plain", "service", "session", "driver", "winegap"};
/// Takes the place of a label for the life of the service.
inline constexpr char kLife[] = "life";

/// @param text the list: its first line is the kit's version, each other one a test, its parts apart by tabs
/// @throws KitError at a line that is no test
KitList ParseList(const std::string& text);

/// What the user wants to run.
struct Selection {
    std::vector<std::string> labels;    ///< none: all of them
    std::vector<std::string> patterns;  ///< names with * and ?; none: every test
    bool force = false;
    bool help = false;

    bool Wants(const KitTest& test) const;
    bool WantsLife() const;
};

/// @throws KitError at an option that there is not
Selection ParseArguments(const std::vector<std::string>& arguments);

/// Whether a name is as a pattern says, in which * is any text and ? any character.
bool Matches(const char* pattern, const char* name);

}  // namespace kitrun
