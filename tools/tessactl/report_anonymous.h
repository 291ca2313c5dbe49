#pragma once

#include <string>
#include <vector>

#include "json.h"

namespace tessactl {

/// Whose names are left out.
struct PrivateNames {
    std::vector<std::wstring> users;
    std::vector<std::wstring> computers;  ///< and domains
};

/// The computer, its domain, and the users who have a profile on it.
PrivateNames NamesOnThisMachine();

/// Adds what the account of a service tells: "DOMAIN\user", "user@domain". Accounts of the system are no
/// names.
void AddAccount(PrivateNames& names, const std::wstring& account);

/// Takes names of users and computers out of texts: those that are known, whole words in any case; what
/// stands where a profile's folder or a server has its name; security identifiers of accounts.
class Anonymiser {
  public:
    explicit Anonymiser(PrivateNames names);

    /// @param text UTF-8
    std::string Without(const std::string& text) const;
    /// All texts of a JSON value, but for the words of this program, such as the state of an access point.
    void Apply(Json& json) const;

  private:
    struct Name {
        std::wstring text;
        const wchar_t* replacement;
    };
    std::wstring WithoutNames(const std::wstring& text) const;
    std::vector<Name> names_;  // the longest first
};

}  // namespace tessactl
