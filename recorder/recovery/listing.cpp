#include "listing.h"

#include <algorithm>

namespace mediafiles::recovery {

namespace {

constexpr std::string_view journal_suffix = ".journal", media_suffix = ".mp4";
constexpr size_t none = SIZE_MAX;

/* Of ASCII, whatever the locale. */
char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string_view text)
{
    std::string result(text);
    std::ranges::transform(result, result.begin(), lower);
    return result;
}

bool ends_with(std::string_view name, std::string_view suffix)
{
    return name.size() > suffix.size() &&
           std::ranges::equal(name.substr(name.size() - suffix.size()), suffix, {}, lower);
}

std::string_view stem_of(std::string_view journal)
{
    return journal.substr(0, journal.size() - journal_suffix.size());
}

} // namespace

bool is_journal_name(std::string_view name)
{
    return ends_with(name, journal_suffix);
}

bool belongs_to_mp4(std::string_view journal)
{
    return ends_with(stem_of(journal), media_suffix);
}

void listing::add_file(std::string_view name)
{
    if (is_journal_name(name))
        journals_.push_back({std::string(name), none});
    else if (ends_with(name, media_suffix))
        media_.push_back({std::string(name), {}});
}

void listing::complete(const std::function<bool(const char *)> &is_regular)
{
    for (const journal_file &journal : journals_) {
        const std::string stem(stem_of(journal.name));
        if (!belongs_to_mp4(journal.name) && is_regular(stem.c_str())) media_.push_back({stem, {}});
    }
    std::ranges::sort(media_, {}, &media_file::name);
    const auto same_name = [](const media_file &a, const media_file &b) { return a.name == b.name; };
    media_.erase(std::unique(media_.begin(), media_.end(), same_name), media_.end());
    std::ranges::sort(journals_, {}, &journal_file::name);
    std::ranges::sort(directories_);
    assign_journals();
}

size_t listing::index_of(std::string_view name) const
{
    const auto found =
        std::ranges::lower_bound(media_, name, {}, [](const media_file &file) { return std::string_view(file.name); });
    return found != media_.end() && found->name == name ? static_cast<size_t>(found - media_.begin()) : none;
}

void listing::assign_journals()
{
    const auto take = [this](size_t owner, const std::string &journal) {
        if (media_[owner].journal.empty()) media_[owner].journal = journal;
    };
    for (journal_file &journal : journals_) {
        journal.owner = index_of(stem_of(journal.name));
        if (journal.owner != none && journal.name.ends_with(journal_suffix)) take(journal.owner, journal.name);
    }
    std::vector<std::pair<std::string, size_t>> in_lower_case;
    for (journal_file &journal : journals_) {
        if (journal.owner == none) {
            if (in_lower_case.empty()) {
                for (size_t i = 0; i < media_.size(); ++i) in_lower_case.emplace_back(lowered(media_[i].name), i);
                std::ranges::sort(in_lower_case);
            }
            const std::string wanted = lowered(stem_of(journal.name));
            const auto found =
                std::ranges::lower_bound(in_lower_case, wanted, {}, [](const auto &p) { return p.first; });
            if (found == in_lower_case.end() || found->first != wanted) continue;
            journal.owner = found->second;
        } else {
            take(journal.owner, journal.name); // a suffix in capital letters
        }
    }
    for (const journal_file &journal : journals_)
        if (journal.owner != none) take(journal.owner, journal.name);
}

std::vector<std::string> listing::orphans() const
{
    std::vector<std::string> result;
    for (const journal_file &journal : journals_)
        if (journal.owner == none) result.push_back(journal.name);
    return result;
}

const listing::media_file *listing::find(std::string_view name) const
{
    size_t index = none;
    if (is_journal_name(name)) {
        const auto found = std::ranges::find(journals_, name, &journal_file::name);
        if (found != journals_.end()) index = found->owner;
    } else {
        index = index_of(name);
    }
    return index == none ? nullptr : &media_[index];
}

} // namespace mediafiles::recovery
