#pragma once

#include <string>

namespace host {

/// Where the commands tell what they do: the console, or the installer.
class MessagesIf {
  public:
    virtual ~MessagesIf() = default;
    /// What was done. The line has no end.
    virtual void Tell(const std::wstring& line) = 0;
    /// What went wrong and what to do, in sentences.
    virtual void Complain(const std::wstring& text) = 0;
};

/// Standard output and standard error.
class ConsoleMessages : public MessagesIf {
  public:
    void Tell(const std::wstring& line) override;
    void Complain(const std::wstring& text) override;
};

}  // namespace host
