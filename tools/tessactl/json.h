#pragma once

#include <concepts>
#include <string>

#include "json_text.h"
#include "text.h"

namespace tessactl {

/// A UTF-8 text as JSON, in quotes. Bytes that are no UTF-8 are replaced: JSON has to be read by others.
inline std::string JsonText(const std::string& text) {
    return toolbox::JsonText(Widened(text, CP_UTF8));
}

inline std::string JsonText(const std::wstring& text) {
    return toolbox::JsonText(text);
}

/// A JSON object, built member by member.
class JsonObject {
  public:
    JsonObject& Add(const std::string& name, const std::string& text) { return AddRaw(name, JsonText(text)); }
    JsonObject& Add(const std::string& name, const std::wstring& text) {
        return AddRaw(name, JsonText(text));
    }
    JsonObject& Add(const std::string& name, const char* text) { return Add(name, std::string(text)); }
    JsonObject& Add(const std::string& name, const wchar_t* text) { return Add(name, std::wstring(text)); }
    JsonObject& Add(const std::string& name, bool value) { return AddRaw(name, value ? "true" : "false"); }
    template <std::integral T>
    JsonObject& Add(const std::string& name, T value) {
        return AddRaw(name, std::to_string(value));
    }
    /// @param json is JSON already
    JsonObject& AddRaw(const std::string& name, const std::string& json) {
        members_ += (members_.empty() ? "" : ",") + JsonText(name) + ":" + json;
        return *this;
    }
    std::string Text() const { return "{" + members_ + "}"; }

  private:
    std::string members_;
};

/// Elements that are JSON already, as an array of one line each.
template <typename Texts>
std::string JsonArray(const Texts& elements) {
    std::string all;
    for (const std::string& element : elements)
        all += (all.empty() ? "" : ",\n ") + element;
    return "[" + all + "]";
}

}  // namespace tessactl
