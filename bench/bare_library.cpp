#include "bare_library.h"

#include <stdexcept>

#include "quelm_orvix.h"

namespace bench {

BareLibrary::BareLibrary() : module_(::LoadLibraryW(quelm::ConfigurationLibraryPath().c_str())) {
    if (module_ == nullptr) throw std::runtime_error("no configuration library");
    Resolve(exists_, "LogDeviceExists");
    Resolve(setNdiValue_, "LogDeviceSetNdiValue");
    Resolve(templateGetEnum_, "TemplateGetEnum");
}

BareLibrary::~BareLibrary() {
    ::FreeLibrary(module_);
}

void BareLibrary::ShowOrHide(const wchar_t* model, const wchar_t* hidden) const {
    ListTemplate();
    for (const wchar_t* kind : kKinds)
        ShowOrHideOne(std::wstring(model) + L"." + kind + L".1", hidden);
}

void BareLibrary::ListTemplate() const {
    wchar_t name[256];
    DWORD length = 256;
    for (DWORD i = 0; templateGetEnum_(L"DefaultLogDevices", i, name, &length) == 0; ++i)
        length = 256;
}

void BareLibrary::ShowOrHideOne(const std::wstring& logDevice, const wchar_t* hidden) const {
    if (exists_(logDevice.c_str(), 0) == 0) setNdiValue_(logDevice.c_str(), L"hidden", hidden);
}

template <typename Function>
void BareLibrary::Resolve(Function*& pointer, const char* name) {
    pointer = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module_, name)));
}

}  // namespace bench
