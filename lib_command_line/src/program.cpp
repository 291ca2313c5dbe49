#include "program.h"

#include <algorithm>
#include <cstdio>

#include "completion.h"
#include "help.h"
#include "nearest.h"
#include "program_parts.h"
#include "toolbox.h"

namespace command_line {
namespace {

using Values = std::vector<std::string>;

std::wstring Wide(const std::string& text) {
    return toolbox::Widened(text, CP_UTF8);
}

std::string Narrow(const std::wstring& text) {
    std::string narrow = toolbox::WstringToString(text, CP_UTF8);
    if (Wide(narrow) != text) throw UsageError("an argument holds half a character: " + narrow);
    return narrow;
}

std::string Listed(const std::vector<std::string>& words) {
    std::string all;
    for (std::size_t i = 0; i < words.size(); ++i)
        all += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
    return all;
}

std::vector<std::string> NamesOf(const std::vector<const CLI::App*>& commands) {
    std::vector<std::string> names;
    for (const CLI::App* command : commands)
        names.push_back(command->get_name());
    return names;
}

/// The one value of an option that was given once, or always the same.
std::string OnlyValue(const std::string& name, const Values& values) {
    if (std::ranges::any_of(values, [&](const auto& value) { return value != values[0]; }))
        throw UsageError("option " + name + " is given twice");
    return values[0];
}

unsigned long ParseNumber(const std::string& name, const std::string& text, unsigned long lowest,
                          unsigned long highest) {
    constexpr std::size_t kMostDigits = 9;  // of what surely fits
    const bool isNumber =
        text.length() <= kMostDigits && text.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long number = isNumber ? std::stoul(text) : 0;
    if (!isNumber || number < lowest || number > highest)
        throw UsageError("the value of " + name + " is a whole number from " + std::to_string(lowest) +
                         " to " + std::to_string(highest));
    return number;
}

CLI::Option& AddFlag(CLI::App& app, const char* name, const char* about) {
    CLI::Option* const flag = app.add_flag(name);
    flag->description(about)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)->disable_flag_override();
    return *flag;
}

/// Adds what every command has in common.
void SetUp(CLI::App& app) {
    app.set_help_flag();  // its own is refused beside a wrong argument
    AddFlag(app, "-h,--help", "prints this help");
    app.allow_windows_style_options(false);
    // Looked at afterwards: what CLI11 says of them differs from version to version.
    app.allow_extras();
    app.require_subcommand(0, 1);
}

CLI::App& AddApp(CLI::App& parent, const std::string& name, const std::string& about) {
    CLI::App* const app = parent.add_subcommand(name, about);
    SetUp(*app);
    return *app;
}

const CLI::App& CalledCommand(const CLI::App& app) {
    const auto called = app.get_subcommands();
    return called.empty() ? app : CalledCommand(*called.front());
}

[[noreturn]] void ThrowUnknown(const std::string& what, const std::string& word,
                               const std::vector<std::string>& candidates) {
    const std::string nearest = Nearest(word, candidates);
    throw UsageError("unknown " + what + " " + word +
                     (nearest.empty() ? "" : "; did you mean \"" + nearest + "\"?"));
}

void RefuseUnknown(const CLI::App& app, const Values& arguments) {
    for (const std::string& word : app.remaining()) {
        if (word == "--") continue;  // all behind it are operands
        const bool isBehindACommand = app.get_parent() == nullptr && word != arguments.front();
        if (word.length() > 1 && word[0] == '-') {
            std::vector<std::string> names;
            for (const CLI::Option* option : app.get_options())
                if (!option->get_positional() && !IsHidden(*option))
                    names.push_back("--" + option->get_lnames().front());
            ThrowUnknown("option", word.substr(0, word.find('=')), names);
        }
        const auto commands = NamesOf(VisibleCommands(app));
        if (commands.empty() || isBehindACommand) throw UsageError("not understood: " + word);
        ThrowUnknown("command", word, commands);
    }
    for (const CLI::App* command : app.get_subcommands())
        RefuseUnknown(*command, arguments);
}

/// The option whose value was forgotten takes the next one for it.
void RefuseForgottenValue(const CLI::App& app, const CLI::Option& option) {
    if (option.get_expected_max() == 0) return;
    for (const std::string& value : option.results())
        if (value.empty() || (value.starts_with('-') && app.get_option_no_throw(value) != nullptr))
            throw UsageError(option.get_positional() ? option.get_type_name() + " is empty"
                                                     : "option " + option.get_name() + " needs a value");
}

/// What CLI11 would take in silence.
void RefuseOddities(const Values& arguments) {
    for (const std::string& argument : arguments) {
        if (argument == "++") throw UsageError("not understood: ++");  // would end the command
        const std::size_t length = argument.length();
        if (argument.starts_with("--") && argument.find('=') == length - 1)  // would take the next one
            throw UsageError("option " + argument.substr(0, length - 1) + " needs a value");
    }
}

void Parse(CLI::App& app, const Values& arguments) {
    RefuseOddities(arguments);
    try {
        app.parse(Values(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::ArgumentMismatch&) {
        RefuseUnknown(app, arguments);
        for (const std::string& argument : arguments) {
            const std::string name = argument.substr(0, argument.find('='));
            const CLI::Option* const option =
                argument.starts_with("--") ? CalledCommand(app).get_option_no_throw(name) : nullptr;
            if (name != argument && option != nullptr && option->get_expected_max() == 0)
                throw UsageError("option " + name + " takes no value");
        }
        throw UsageError("option " + arguments.back() + " needs a value");
    } catch (const CLI::RequiredError&) {
        RefuseUnknown(app, arguments);  // which may explain it; else it is told when the values are taken
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what());
    }
}

void TakeValues(const CommandParts& command) {
    for (const auto& [option, taker] : command.takers)
        if (option->count() > 0) RefuseForgottenValue(*command.app, *option);
    for (const auto& [option, taker] : command.takers) {
        if (option->count() > 0) taker(option->results());
        if (option->count() == 0 && option->get_required())
            throw UsageError(option->get_type_name() + " is missing");
    }
}

void Print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
}

const CLI::App* FindCommand(const CLI::App& app, const std::string& name) {
    const auto found =
        app.get_subcommands([&](const CLI::App* command) { return command->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

int PrintHelp(const ProgramParts& program) {
    const CLI::App* app = &program.app;
    for (const std::wstring& wideWord : program.helpWords) {
        const std::string word = Narrow(wideWord);
        const CLI::App* const command = FindCommand(*app, word);
        if (command == nullptr) ThrowUnknown("command", word, NamesOf(VisibleCommands(*app)));
        app = command;
    }
    Print(HelpText(program, *app));
    return 0;
}

int RunCommand(const ProgramParts& program, const CLI::App& called) {
    for (const CommandParts& command : program.commands) {
        if (command.app != &called) continue;
        TakeValues(command);
        return command.action();
    }
    const std::string name = NameOf(called);
    throw UsageError(name.empty() ? "a command is missing"
                                  : "a command is missing behind " + name + ": " +
                                        Listed(NamesOf(VisibleCommands(called))));
}

bool IsAskedFor(const CLI::App& app, const char* option) {
    return app.get_option_no_throw(option) != nullptr && app.get_option_no_throw(option)->count() > 0;
}

bool HelpIsAskedFor(const CLI::App& app) {
    return IsAskedFor(app, "--help") ||
           std::ranges::any_of(app.get_subcommands(),
                               [](const CLI::App* command) { return HelpIsAskedFor(*command); });
}

int RunParsed(ProgramParts& program, const std::vector<std::wstring>& arguments) {
    Values narrow;
    for (const std::wstring& argument : arguments)
        narrow.push_back(Narrow(argument));
    try {
        Parse(program.app, narrow);
        if (!HelpIsAskedFor(program.app)) RefuseUnknown(program.app, narrow);
    } catch (const UsageError&) {
        if (!HelpIsAskedFor(program.app)) throw;  // who asks for help may be wrong
    }
    const CLI::App& called = CalledCommand(program.app);
    if (HelpIsAskedFor(program.app))
        Print(HelpText(program, called));
    else if (IsAskedFor(program.app, "--version"))
        Print(VersionText(program));
    else
        return RunCommand(program, called);
    return 0;
}

/// Adds an option; without dashes in its name it is an operand.
CLI::Option& AddOption(CommandParts& parts, const std::string& name, const std::string& placeholder,
                       const std::string& about, CommandParts::Taker taker) {
    CLI::Option* const option = parts.app->add_option(name, CLI::callback_t(), about);
    option->type_name(placeholder)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    parts.takers.emplace_back(option, std::move(taker));
    return *option;
}

CommandParts::Taker TakeAll(std::vector<std::wstring>& values) {
    return [&values](const Values& given) {
        for (const std::string& value : given)
            values.push_back(Wide(value));
    };
}

CommandParts::Taker TakeOne(const std::string& name, std::wstring& value, Command::Check check) {
    return [&value, name, check](const Values& given) {
        const std::wstring text = Wide(OnlyValue(name, given));
        if (check != nullptr) check(name, text);
        value = text;
    };
}

}  // namespace

Command& Command::Switch(const char* name, bool& value, const char* about) {
    const CLI::Option& option = AddFlag(*parts_.app, name, about);
    parts_.takers.emplace_back(&option, [&value](const Values&) { value = true; });
    return *this;
}

Command& Command::Text(const char* name, std::wstring& value, const char* placeholder, const char* about,
                       Check check) {
    AddOption(parts_, name, placeholder, about, TakeOne(name, value, check));
    return *this;
}

Command& Command::Texts(const char* name, std::vector<std::wstring>& values, const char* placeholder,
                        const char* about) {
    AddOption(parts_, name, placeholder, about, TakeAll(values))
        .expected(1, CLI::detail::expected_max_vector_size);
    return *this;
}

Command& Command::Number(const char* name, unsigned long& value, unsigned long lowest, unsigned long highest,
                         const char* placeholder, const char* about) {
    const std::string range = std::to_string(lowest) + " to " + std::to_string(highest);
    const bool hasDefault = value >= lowest && value <= highest;
    AddOption(parts_, name, placeholder,
              std::string(about) + ": " + range +
                  (hasDefault ? ", " + std::to_string(value) + " unless told otherwise" : ""),
              [=, &value](const Values& given) {
                  value = ParseNumber(name, OnlyValue(name, given), lowest, highest);
              });
    return *this;
}

Command& Command::Choice(const char* name, std::wstring& value, const std::vector<std::string>& words,
                         const char* about) {
    const std::string listed = Listed(words);
    const CLI::Option& option =
        AddOption(parts_, name, "WORD",
                  std::string(about) + ": " + listed + ", " + Narrow(value) + " unless told otherwise",
                  [=, &value](const Values& given) {
                      const std::string word = OnlyValue(name, given);
                      if (std::ranges::find(words, word) == words.end())
                          throw UsageError(std::string("the value of ") + name + " is " + listed);
                      value = Wide(word);
                  });
    parts_.choices.emplace_back(&option, words);
    return *this;
}

Command& Command::Operand(const char* placeholder, std::wstring& value, const char* about) {
    AddOption(parts_, placeholder, placeholder, about, TakeOne(placeholder, value, nullptr)).required();
    return *this;
}

Command& Command::OptionalOperand(const char* placeholder, std::wstring& value, const char* about) {
    AddOption(parts_, placeholder, placeholder, about, TakeOne(placeholder, value, nullptr));
    return *this;
}

Command& Command::Operands(const char* placeholder, std::vector<std::wstring>& values, const char* about) {
    AddOption(parts_, placeholder, placeholder, about, TakeAll(values))
        .expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args();
    return *this;
}

Command& Command::Hide() {
    parts_.app->group("");
    return *this;
}

void Command::Runs(std::function<int()> action) {
    parts_.action = std::move(action);
}

Program::Program(const char* name, const char* about, std::span<const ExitCodeMeaning> exitCodes,
                 UINT codePage)
    : parts_(std::make_unique<ProgramParts>()) {
    parts_->app.name(name);
    parts_->app.description(about);
    parts_->exitCodes = exitCodes;
    parts_->codePage = codePage;
    SetUp(parts_->app);
    AddFlag(parts_->app, "--version", "prints version, commit and date of the build");
    Add("help", "prints the help of the program or of a command")
        .Operands("COMMAND", parts_->helpWords, "the command, also of two words")
        .Runs([this] { return PrintHelp(*parts_); });
    Add("completion", "prints a script by which PowerShell completes commands and options").Runs([this] {
        Print(CompletionScript(*parts_));
        return 0;
    });
    // For scripts/commands.sh.
    Add("manual", "prints the help of all commands in Markdown").Hide().Runs([this] {
        Print(Manual(*parts_));
        return 0;
    });
}

Program::~Program() = default;

Command Program::Add(const std::string& name, const char* about) {
    const std::size_t blank = name.find(' ');
    CLI::App& family =
        blank == std::string::npos ? parts_->app : *parts_->app.get_subcommand(name.substr(0, blank));
    CommandParts& parts = parts_->commands.emplace_back();
    parts.app = &AddApp(family, name.substr(blank + 1), about);  // npos + 1 is 0
    return Command(parts);
}

void Program::AddFamily(const std::string& name, const char* about) {
    AddApp(parts_->app, name, about);
}

int Program::Run(const std::vector<std::wstring>& arguments) {
    parts_->app.clear();
    try {
        return RunParsed(*parts_, arguments);
    } catch (const UsageError& error) {
        const std::string told = toolbox::WstringToString(Wide(error.what()), parts_->codePage);
        const std::string name = parts_->app.get_name();
        const std::string command = NameOf(CalledCommand(parts_->app));
        std::fprintf(stderr, "%s: %s\nTry \"%s help%s%s\".\n", name.c_str(), told.c_str(), name.c_str(),
                     command.empty() ? "" : " ", command.c_str());
        return kUsageExitCode;
    }
}

}  // namespace command_line
