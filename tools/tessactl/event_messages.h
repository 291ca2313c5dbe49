#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "event_log_entries.h"
#include "unique_handle.h"

namespace tessactl {

/// The files of a value EventMessageFile: names separated by semicolons, which may hold variables of the
/// environment. Empty parts are left out.
std::vector<std::wstring> MessageFilesFrom(const std::wstring& value);

/// The sentences of a source's entries, from the files that are registered for it.
class EventMessages {
  public:
    /// A source that is not registered, or whose files are missing, has no sentences.
    EventMessages(const std::wstring& logName, const std::wstring& source);
    /// The first file that has the entry's sentence counts.
    std::wstring Sentence(const LogEntry& entry) const;

  private:
    std::vector<UniqueModule> files_;
};

}  // namespace tessactl
