#include "completion.h"

#include <utility>
#include <vector>

namespace command_line {
namespace {

/// Texts that may be typed, each with what is told of it.
using Offer = std::vector<std::pair<std::string, std::string>>;

// It has no table, so it is passed over: behind it stands what stands without it.
constexpr char kHelp[] = "help";

// Options are offered once a dash was typed: what else may stand there is often a file, and PowerShell offers
// files where this offers nothing.
constexpr char kLookUp[] = R"(    $command = ''
    $last = ''
    foreach ($element in $commandAst.CommandElements | Select-Object -Skip 1) {
        if ($element.Extent.EndOffset -ge $cursorPosition) { break }
        $last = $element.Extent.Text
        $longer = "$command $last".Trim()
        if (-not $last.StartsWith('-') -and $offered.Contains($longer)) { $command = $longer }
    }
    $behindOption = "$command $last".Trim()
    if ($last.StartsWith('-') -and $offered.Contains($behindOption)) { $words = $offered[$behindOption] }
    else { $words = $offered[$command] }
    foreach ($word in $words.Keys) {
        $isOption = $word.StartsWith('-')
        if ($isOption -and -not $wordToComplete) { continue }
        if (-not $word.StartsWith($wordToComplete, [StringComparison]::OrdinalIgnoreCase)) { continue }
        $kind = if ($isOption) { 'ParameterName' } else { 'ParameterValue' }
        [System.Management.Automation.CompletionResult]::new($word, $word, $kind, $words[$word])
    }
)";

/// A text that PowerShell takes as it is.
std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? "''" : std::string(1, c);
    return quoted + "'";
}

/// @param behind the words behind which it is offered
std::string Table(const std::string& behind, const Offer& offer) {
    std::string table = "        " + Quoted(behind) + " = [ordered]@{\n";
    for (const auto& [text, about] : offer)
        table += "            " + Quoted(text) + " = " + Quoted(about) + "\n";
    return table + "        }\n";
}

std::string OptionName(const CLI::Option& option) {
    return "--" + option.get_lnames().front();
}

Offer Commands(const CLI::App& app) {
    Offer offer;
    for (const CLI::App* command : VisibleCommands(app))
        offer.emplace_back(command->get_name(), Summary(*command));
    return offer;
}

Offer Choices(const ProgramParts& program, const CLI::Option& option) {
    Offer offer;
    for (const CommandParts& command : program.commands)
        for (const auto& [of, words] : command.choices)
            for (const std::string& word : words)
                if (of == &option) offer.emplace_back(word, word);
    return offer;
}

/// What is offered behind a command, behind its options that take a value, and behind the commands of a
/// family.
std::string Tables(const ProgramParts& program, const CLI::App& app) {
    const std::string name = NameOf(app);
    Offer offer = Commands(app);
    std::string ofOptions;
    for (const CLI::Option* option : VisibleOptions(app)) {
        if (option->get_positional()) continue;
        offer.emplace_back(OptionName(*option), option->get_description());
        if (option->get_expected_max() > 0)
            ofOptions +=
                Table((name.empty() ? "" : name + " ") + OptionName(*option), Choices(program, *option));
    }
    std::string tables = Table(name, offer) + ofOptions;
    for (const CLI::App* command : VisibleCommands(app))
        if (command->get_name() != kHelp) tables += Tables(program, *command);
    return tables;
}

}  // namespace

std::string CompletionScript(const ProgramParts& program) {
    const std::string name = program.app.get_name();
    return "# Has PowerShell complete " + name + "'s commands and options. In a profile:\n#   " + name +
           " completion | Out-String | Invoke-Expression\nRegister-ArgumentCompleter -Native -CommandName " +
           Quoted(name) +
           " -ScriptBlock {\n    param($wordToComplete, $commandAst, $cursorPosition)\n    $offered = @{\n" +
           Tables(program, program.app) + "    }\n" + kLookUp + "}\n";
}

}  // namespace command_line
