#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "text.h"

namespace tessactl {

/// A part of a message's text: words, and behind them an argument.
struct TmfPiece {
    std::string words;
    std::string conversion;  ///< of the argument, such as "u"; empty: there is none
};

/// The description of one trace message, from a .tmf file.
struct TmfMessage {
    std::string source;  ///< name of the source file, e.g. "tessaplug_pnp"
    std::vector<TmfPiece> text;
    std::vector<std::string> items;  ///< "ItemLong", "ItemString"... of %10, %11...
    unsigned int level = 0;          ///< 2 error to 5 verbose
    std::string function;            ///< in which the trace point stands; empty if the file does not say
};

struct GuidLess {
    bool operator()(const GUID& a, const GUID& b) const;
};

/// All messages of a folder of .tmf files.
class TmfCatalog {
  public:
    /// @throws ToolError if the folder has no .tmf file or one is not understood
    static TmfCatalog FromFolder(const std::wstring& folder);

    /// Adds the messages of one file.
    /// @param name of the file, for errors
    /// @throws ToolError if the text is not understood
    void Add(const std::string& text, const std::string& name);
    /// Null if the message is not known.
    const TmfMessage* Find(const GUID& messageGuid, unsigned int number) const;

  private:
    std::map<GUID, std::map<unsigned int, TmfMessage>, GuidLess> messages_;
};

}  // namespace tessactl
