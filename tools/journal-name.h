/** The name of the journal that belongs to a media file. */
#ifndef TOOLS_JOURNAL_NAME_H
#define TOOLS_JOURNAL_NAME_H

#include <string>

namespace tools {

inline std::string journal_of(const std::string &media)
{
    return media + ".journal";
}

} // namespace tools

#endif
