#pragma once

#include <string>

namespace wine_gap {

/// A folder of the machine for the stand-in's files, made if necessary.
std::wstring DataFolder();

}  // namespace wine_gap
