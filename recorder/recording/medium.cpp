#include "medium.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace mediafiles::recorder {

using recovery::identity_of;
using recovery::system_failure;

namespace {

std::string absolute(const std::string &path)
{
    if (path.starts_with('/')) return path;
    const std::unique_ptr<char, decltype(&std::free)> working(getcwd(nullptr, 0), &std::free);
    return working ? std::string(working.get()) + '/' + path : path;
}

} // namespace

recovery::descriptor open_directory(const std::string &path)
{
    recovery::descriptor opened = recovery::open_at(AT_FDCWD, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!opened.is_open()) throw system_failure();
    return opened;
}

void lock_directory(int directory)
{
    if (flock(directory, LOCK_EX | LOCK_NB) != 0) throw system_failure(errno == EWOULDBLOCK ? EBUSY : errno);
}

bool medium::place::is_taken_by(const place &found) const
{
    if (found.below == device) return true; // it is mounted over this one
    return found.levels == levels && found.below == below && (below || found.device == device);
}

medium::place medium::place_of(int directory)
{
    struct stat status = recovery::status_of(directory), parent;
    place found = {status.st_dev, 0, std::nullopt};
    for (std::string up = ".."; fstatat(directory, up.c_str(), &parent, 0) == 0; up += "/..", ++found.levels) {
        if (parent.st_dev != status.st_dev) found.below = parent.st_dev;
        if (found.below || identity_of(parent) == identity_of(status)) break;
        status = parent;
    }
    return found; // what may not be looked at counts as the root
}

medium::medium(const std::string &path, bool locked, int directory)
    : path_(absolute(path)), is_locked_(locked), place_(place_of(directory))
{
}

int medium::examine(int directory) const
{
    struct stat named, opened;
    struct statvfs system;
    if (fstatat(AT_FDCWD, path_.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 || fstat(directory, &opened) != 0 ||
        fstatvfs(directory, &system) != 0)
        return errno;
    if (identity_of(named) != identity_of(opened)) return ENODEV;
    return system.f_flag & ST_RDONLY ? EROFS : 0;
}

recovery::descriptor medium::open()
{
    recovery::descriptor opened = open_directory(path_);
    const place found = place_of(opened);
    if (!place_.is_taken_by(found)) throw system_failure(ENODEV);
    if (const int error = examine(opened)) throw system_failure(error);
    if (is_locked_) lock_directory(opened);
    place_ = found;
    return opened;
}

} // namespace mediafiles::recorder
