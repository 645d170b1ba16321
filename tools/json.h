/** The JSON objects that the commands print. */
#ifndef TOOLS_JSON_H
#define TOOLS_JSON_H

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace tools {

using nlohmann::ordered_json;

template <class Value>
ordered_json or_null(const std::optional<Value> &value)
{
    return value ? ordered_json(*value) : ordered_json(nullptr);
}

/** Empty is none. */
inline ordered_json or_null(const std::string &text)
{
    return text.empty() ? ordered_json(nullptr) : ordered_json(text);
}

inline constexpr int one_line = -1;

/** File names need not be valid UTF-8, so what is not is replaced. */
inline std::string json_text(const ordered_json &value, int indent = 2)
{
    return value.dump(indent, ' ', false, ordered_json::error_handler_t::replace);
}

} // namespace tools

#endif
