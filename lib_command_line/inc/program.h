#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace command_line {

/// What is wrong with the arguments, in UTF-8, without a full stop. A command may throw it as well.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Exit code of a command line that is not understood.
constexpr int kUsageExitCode = 2;

struct ExitCodeMeaning {
    int code;
    const char* meaning;
    const char* advice;  ///< what to do; may be empty
};

struct ProgramParts;
struct CommandParts;

/// One command of a program, while it is defined. An option is told once: from its definition come parsing,
/// help and the manual. Values stand in UTF-8 in what is told, and have to outlive the program's Run.
class Command {
  public:
    explicit Command(CommandParts& parts) : parts_(parts) {}

    /// An option without a value, such as "--json".
    Command& Switch(const char* name, bool& value, const char* about);
    /// Throws UsageError if the value of an option will not do.
    using Check = void (*)(const std::string& name, const std::wstring& value);
    /// An option with a value, which is not empty.
    /// @param placeholder stands for the value in the help, such as "FILE"
    Command& Text(const char* name, std::wstring& value, const char* placeholder, const char* about,
                  Check check = nullptr);
    /// The same, given as often as one likes.
    Command& Texts(const char* name, std::vector<std::wstring>& values, const char* placeholder,
                   const char* about);
    /// An option whose value is a whole number. Range and default, which is the value that it has now, are
    /// told by the help.
    Command& Number(const char* name, unsigned long& value, unsigned long lowest, unsigned long highest,
                    const char* placeholder, const char* about);
    /// An option whose value is one of a few words. The default is the value that it has now.
    Command& Choice(const char* name, std::wstring& value, const std::vector<std::string>& words,
                    const char* about);
    /// What stands behind the command without a name, one each.
    Command& Operand(const char* placeholder, std::wstring& value, const char* about);
    Command& OptionalOperand(const char* placeholder, std::wstring& value, const char* about);
    /// Several of them, or none.
    Command& Operands(const char* placeholder, std::vector<std::wstring>& values, const char* about);

    /// Neither listed nor suggested: for the programs themselves.
    Command& Hide();
    /// What it does.
    /// @param action returns the exit code
    void Runs(std::function<int()> action);

  private:
    CommandParts& parts_;
};

/// The command line of a program: its commands, "help", "--help" and "--version".
class Program {
  public:
    /// @param about what it is, without a full stop
    /// @param codePage of what it tells of the arguments
    Program(const char* name, const char* about, std::span<const ExitCodeMeaning> exitCodes, UINT codePage);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// @param name of two words if the command is one of a family: "trace start"
    /// @param about what it does, without a full stop; what stands behind a line end is told by its own help
    /// only
    Command Add(const std::string& name, const char* about);
    /// Commands that share their first word; added before them.
    void AddFamily(const std::string& name, const char* about);

    /// Does what the arguments behind the program's name ask for. What is wrong with them is told on standard
    /// error.
    /// @return the command's exit code, or kUsageExitCode
    int Run(const std::vector<std::wstring>& arguments);

  private:
    std::unique_ptr<ProgramParts> parts_;
};

}  // namespace command_line
