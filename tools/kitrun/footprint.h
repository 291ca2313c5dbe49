#pragma once

#include <string>
#include <vector>

namespace kitrun {

inline const std::wstring kLibraryKey = L"SOFTWARE\\Valdorn\\Shared Tools\\QUELM64";
inline constexpr wchar_t kLibraryValue[] = L"Korvane_Oam";
inline const std::wstring kStationManagerKey =
    L"SOFTWARE\\Classes\\CLSID\\{A1BFDF31-F4D2-11D3-9140-00105AAFF783}";
inline constexpr const wchar_t* kDrivers[] = {L"fenlu3.sys", L"nx4120.sys"};

std::wstring ServiceKey(const std::wstring& service);
std::wstring DriverPath(const std::wstring& driver);
std::wstring PanelPath();

/// What the tests may leave on a machine. What was not there when this was made is taken away again, whatever
/// became of the tests.
class Footprint {
  public:
    /// @param programs the kit's programs, with a backslash at its end; what stands there is not of the
    /// machine
    explicit Footprint(const std::wstring& programs);

    /// @return what could not be removed
    std::vector<std::string> Remove() const;

  private:
    /// A program of the kit that removes what it made.
    void Run(const std::wstring& command) const;

    const std::wstring programs_;
    std::vector<std::wstring> services_;
    std::vector<std::wstring> keys_;
    std::vector<std::wstring> files_;
    bool hadDrivers_;
    bool hadStationManager_;
    bool hadLibrary_;
    bool hadFolder_;
};

}  // namespace kitrun
