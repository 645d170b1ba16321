#include "tools/record/config-file.h"

#include <fstream>

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

/* " --" or " -o " in it: names of files may have a minus sign, too. */
bool has_option(const std::string &text)
{
    const std::string words = text + " ";
    for (size_t at = 0; (at = words.find(" -", at)) != std::string::npos; at += 2)
        if (words[at + 2] != ' ' && (words[at + 2] == '-' || words[at + 3] == ' ')) return true;
    return false;
}

/* Why a line that holds something cannot be meant as it stands; empty for the others. */
std::string objection_to(const std::string &line, const std::string &name, const std::string &value)
{
    if (name == option || name.starts_with(std::string(option) + "="))
        return "--config stands in it; only the command line may have that";
    if (line.find(" # ") != std::string::npos) return "a comment needs a line of its own";
    if (has_option(value.empty() ? line : value)) return "each option needs a line of its own";
    if (value.starts_with('"') || value.starts_with('\'')) return "values stand without quotes";
    return {};
}

void append(const std::string &path, std::vector<std::string> &to)
{
    std::ifstream file(path);
    if (!file) throw failure(cannot_read, path, errno);
    unsigned number = 0;
    for (std::string text; std::getline(file, text);) {
        ++number;
        text = trimmed(text);
        if (text.empty() || text[0] == '#') continue;
        const size_t end = text[0] == '-' ? text.find_first_of(blank) : std::string::npos;
        const std::string name = text.substr(0, end);
        const std::string value = end != std::string::npos ? trimmed(text.substr(end)) : "";
        if (const std::string why = objection_to(text, name, value); !why.empty())
            throw wrong_line("wrong configuration", path, "line " + std::to_string(number) + ": " + why);
        to.push_back(name);
        if (end != std::string::npos) to.push_back(value);
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
