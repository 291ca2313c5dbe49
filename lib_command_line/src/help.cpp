#include "help.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

#include "build_info.h"

namespace command_line {
namespace {

constexpr std::size_t kWidth = 100;

std::string FullName(const ProgramParts& program, const CLI::App& app) {
    const std::string name = NameOf(app);
    return program.app.get_name() + (name.empty() ? "" : " " + name);
}

std::string Sentence(std::string text) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text.ends_with('.') ? text : text + ".";
}

/// All that is told of a command or program, in sentences.
std::string Sentences(const CLI::App& app) {
    const std::string summary = Summary(app);
    const std::string about = app.get_description();
    const bool hasMore = about.length() > summary.length() + 1;
    return Sentence(summary) + (hasMore ? " " + Sentence(about.substr(summary.length() + 1)) : "");
}

/// Breaks what consists of words into lines; all but the first begin with an indent.
std::string Wrapped(const std::vector<std::string>& words, std::size_t indent) {
    std::string lines;
    std::size_t column = indent;
    for (const std::string& word : words) {
        if (column + 1 + word.length() > kWidth) {
            lines += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (!lines.empty()) {
            lines += " ";
            ++column;
        }
        lines += word;
        column += word.length();
    }
    return lines;
}

std::string Wrapped(const std::string& text, std::size_t indent) {
    std::istringstream stream(text);
    return Wrapped(std::vector<std::string>{std::istream_iterator<std::string>(stream), {}}, indent);
}

bool IsHelp(const CLI::Option& option) {
    return option.check_lname("help");
}

/// How an option or operand is written: "--name NAME".
std::string Form(const CLI::Option& option) {
    if (option.get_positional()) return option.get_type_name();
    std::string names;
    for (const std::string& name : option.get_snames())
        names += (names.empty() ? "-" : ", -") + name;
    for (const std::string& name : option.get_lnames())
        names += (names.empty() ? "--" : ", --") + name;
    const bool hasValue = option.get_expected_max() > 0;
    return hasValue ? names + " " + option.get_type_name() : names;
}

/// How a command is called, "tessactl show NAME [--json]", on as many lines as it takes.
std::string Usage(const ProgramParts& program, const CLI::App& app, std::size_t indent = 0) {
    const std::string name = FullName(program, app);
    if (!VisibleCommands(app).empty()) return name + " COMMAND";
    std::vector<std::string> operands;
    std::vector<std::string> named;
    for (const CLI::Option* option : VisibleOptions(app)) {
        if (IsHelp(*option)) continue;
        const std::string form = option->get_required() ? Form(*option) : "[" + Form(*option) + "]";
        const std::string repeated = option->get_expected_max() > 1 ? form + "..." : form;
        (option->get_positional() ? operands : named).push_back(repeated);
    }
    operands.insert(operands.end(), named.begin(), named.end());
    return operands.empty() ? name : name + " " + Wrapped(operands, indent + name.length() + 1);
}

using Rows = std::vector<std::pair<std::string, std::string>>;

/// Two columns, the second wrapped.
std::string Table(const Rows& rows) {
    std::size_t width = 0;
    for (const auto& [left, right] : rows)
        width = std::max(width, left.length());
    std::string text;
    for (const auto& [left, right] : rows)
        text += "  " + left + std::string(width + 2 - left.length(), ' ') + Wrapped(right, width + 4) + "\n";
    return text;
}

/// Every command, those of a family one by one.
std::vector<const CLI::App*> AllCommands(const CLI::App& app) {
    std::vector<const CLI::App*> all;
    for (const CLI::App* command : VisibleCommands(app)) {
        const auto family = AllCommands(*command);
        if (family.empty()) all.push_back(command);
        all.insert(all.end(), family.begin(), family.end());
    }
    return all;
}

std::string OptionTable(const CLI::App& app) {
    Rows rows;
    for (const CLI::Option* option : VisibleOptions(app))
        rows.emplace_back(Form(*option), option->get_description());
    return Table(rows);
}

std::string CommandTable(const CLI::App& app) {
    Rows rows;
    for (const CLI::App* command : AllCommands(app))
        rows.emplace_back(NameOf(*command), Summary(*command));
    return Table(rows);
}

std::string ExitCodeTable(const ProgramParts& program) {
    Rows rows;
    for (const ExitCodeMeaning& exitCode : program.exitCodes)
        rows.emplace_back(std::to_string(exitCode.code), exitCode.meaning);
    return Table(rows);
}

std::string MarkdownTable(const std::string& head, const Rows& rows) {
    std::string table = "| " + head + " |\n|---|---|\n";
    for (const auto& [left, right] : rows)
        table += "| " + left + " | " + right + " |\n";
    return table;
}

std::string ManualOf(const ProgramParts& program, const CLI::App& command) {
    Rows rows;
    for (const CLI::Option* option : VisibleOptions(command))
        if (!IsHelp(*option)) rows.emplace_back("`" + Form(*option) + "`", option->get_description());
    return "### " + FullName(program, command) + "\n\n    " + Usage(program, command, 4) + "\n\n" +
           Sentences(command) + "\n" + (rows.empty() ? "" : "\n" + MarkdownTable("option | meaning", rows)) +
           "\n";
}

}  // namespace

std::string HelpText(const ProgramParts& program, const CLI::App& app) {
    const std::string name = program.app.get_name();
    if (app.get_parent() == nullptr)
        return name + ": " + app.get_description() + "\n\n" + CommandTable(app) + "\n\"" + name +
               " help COMMAND\" tells more of a command.\n\n" + OptionTable(app) + "\nExit codes:\n" +
               ExitCodeTable(program);
    const bool isFamily = !VisibleCommands(app).empty();
    return Usage(program, app) + "\n\n" + Wrapped(Sentences(app), 0) + "\n\n" +
           (isFamily ? CommandTable(app) : OptionTable(app)) + "\nExit codes:\n" + ExitCodeTable(program);
}

std::string Manual(const ProgramParts& program) {
    std::string manual = "## " + program.app.get_name() + "\n\n" + Sentences(program.app) + "\n\n";
    for (const CLI::App* command : AllCommands(program.app))
        manual += ManualOf(program, *command);
    manual += "### Exit codes of " + program.app.get_name() +
              "\n\n| code | meaning | what to do |\n|---|---|---|\n";
    for (const ExitCodeMeaning& exitCode : program.exitCodes)
        manual += "| " + std::to_string(exitCode.code) + " | " + exitCode.meaning + " | " + exitCode.advice +
                  " |\n";
    return manual;
}

std::string VersionText(const ProgramParts& program) {
    return program.app.get_name() + " " TESSA_VERSION " (" TESSA_VERSION_TEXT "), commit " TESSA_COMMIT
                                    ", " TESSA_BUILD_DATE " UTC\n";
}

}  // namespace command_line
