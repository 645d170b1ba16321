#include "tools/record/config-file.h"

#include <fstream>

#include "tools/failure.h"

namespace tools {

namespace {

constexpr const char *option = "--config";
constexpr const char *blank = " \t\r";
constexpr const char *cannot_read = "cannot read the configuration";

std::string trimmed(const std::string &text)
{
    const size_t begin = text.find_first_not_of(blank);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(blank) + 1 - begin);
}

void append(const std::string &path, std::vector<std::string> &to)
{
    std::ifstream file(path);
    if (!file) throw failure(cannot_read, path, errno);
    for (std::string text; std::getline(file, text);) {
        text = trimmed(text);
        if (text.empty() || text[0] == '#') continue;
        const size_t end = text[0] == '-' ? text.find_first_of(blank) : std::string::npos;
        const std::string name = text.substr(0, end);
        if (name == option || name.starts_with(std::string(option) + "="))
            throw failure(cannot_read, path, "--config stands in it; only the command line may have that");
        to.push_back(name);
        if (end != std::string::npos) to.push_back(trimmed(text.substr(end)));
    }
    if (file.bad()) throw failure(cannot_read, path, errno);
}

} // namespace

std::vector<std::string> with_config(const std::vector<std::string> &line)
{
    if (line.empty() || line[0] != "record") return line;
    const std::string with_value = std::string(option) + "=";
    std::vector<std::string> whole;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == option && i + 1 < line.size())
            append(line[++i], whole);
        else if (line[i].starts_with(with_value))
            append(line[i].substr(with_value.size()), whole);
        else
            whole.push_back(line[i]);
    }
    return whole;
}

} // namespace tools
