#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <list>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "program.h"

namespace command_line {

struct CommandParts {
    /// Takes the values that an option or operand was given; throws UsageError.
    using Taker = std::function<void(const std::vector<std::string>& values)>;

    CLI::App* app = nullptr;
    std::vector<std::pair<const CLI::Option*, Taker>> takers;
    std::vector<std::pair<const CLI::Option*, std::vector<std::string>>> choices;  ///< words they take
    std::function<int()> action;
};

struct ProgramParts {
    CLI::App app;
    std::span<const ExitCodeMeaning> exitCodes;
    UINT codePage = CP_UTF8;
    std::list<CommandParts> commands;  ///< they stay where they are

    std::vector<std::wstring> helpWords;  ///< operands of "help"
};

/// The words by which a command is called: "trace start"; empty for the program itself.
inline std::string NameOf(const CLI::App& app) {
    if (app.get_parent() == nullptr) return {};
    const std::string family = NameOf(*app.get_parent());
    return (family.empty() ? "" : family + " ") + app.get_name();
}

inline bool IsHidden(const CLI::App& app) {
    return app.get_group().empty();
}

inline bool IsHidden(const CLI::Option& option) {
    return option.get_group().empty();
}

/// The commands of a program, or of a family, that everybody may know of.
inline std::vector<const CLI::App*> VisibleCommands(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* command) { return !IsHidden(*command); });
}

/// The options and operands that everybody may know of.
inline std::vector<const CLI::Option*> VisibleOptions(const CLI::App& app) {
    return app.get_options([](const CLI::Option* option) { return !IsHidden(*option); });
}

/// What stands in a list of commands.
inline std::string Summary(const CLI::App& app) {
    const std::string about = app.get_description();
    return about.substr(0, about.find('\n'));
}

}  // namespace command_line
