#include "new-files.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mediafiles::recorder {

namespace {

using recovery::descriptor;
using recovery::obstacle;
using recovery::system_failure;
using recovery::temporary_file;

constexpr mode_t any_write = S_IWUSR | S_IWGRP | S_IWOTH;

std::string journal_of(const std::string &media)
{
    return media + ".journal";
}

bool exists(int directory, const std::string &name, struct stat &status)
{
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return true;
    if (errno != ENOENT) throw system_failure();
    return false;
}

/* A file that may be replaced, locked; none where there is no file. */
descriptor claim_old(int directory, const std::string &name)
{
    struct stat status;
    if (!exists(directory, name, status)) return {};
    if (S_ISLNK(status.st_mode)) throw system_failure(ELOOP);
    if (!S_ISREG(status.st_mode) || !(status.st_mode & any_write)) throw system_failure(EEXIST);
    descriptor file = recovery::open_at(directory, name.c_str(), O_RDONLY | O_NOFOLLOW);
    if (!file.is_open()) throw system_failure();
    try {
        recovery::claim(file, directory, name.c_str());
    } catch (const obstacle &cause) { // somebody has it, or has replaced or removed it meanwhile
        throw system_failure(cause.error == EWOULDBLOCK || cause.error == ESTALE ? EBUSY : cause.error);
    }
    return file;
}

descriptor new_file(int directory, const std::string &name, uint32_t mode)
{
    const int number = openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY,
                              static_cast<mode_t>(mode));
    if (number < 0) throw system_failure();
    return descriptor(number);
}

void remove_own(int directory, const std::string &name, const descriptor &file)
{
    if (file.is_open() && recovery::leads_to(directory, name.c_str(), file)) unlinkat(directory, name.c_str(), 0);
}

/*
 * The journal first: one that a cut leaves alone is empty, and recovery removes it; media without a journal would stay.
 * Before the lock a recovery may have found both files: what has their names then is not ours.
 */
new_files make_new(int directory, const std::string &name, uint32_t mode)
{
    const std::string journal = journal_of(name);
    new_files made;
    bool is_taken = false;
    made.journal = new_file(directory, journal, mode);
    try {
        made.media = new_file(directory, name, mode);
        if (flock(made.media, LOCK_EX | LOCK_NB) != 0) {
            is_taken = errno == EWOULDBLOCK;
            throw system_failure(is_taken ? EBUSY : errno);
        }
        if (!recovery::leads_to(directory, name.c_str(), made.media) ||
            !recovery::leads_to(directory, journal.c_str(), made.journal))
            throw system_failure(EBUSY);
    } catch (const obstacle &) {
        if (is_taken) throw; // who has the lock may use both files by now
        remove_own(directory, name, made.media);
        remove_own(directory, journal, made.journal);
        throw;
    }
    return made;
}

void place(temporary_file &file, const std::string &name, bool is_taken)
{
    if (is_taken)
        file.replace(name.c_str());
    else
        file.name(name.c_str());
}

/* The journal first: an old one must never stand beside new media. */
new_files make_replacements(int directory, const std::string &name, uint32_t mode, bool has_media, bool has_journal)
{
    temporary_file media(directory, mode, temporary_file::permissions::before_umask);
    temporary_file journal(directory, mode, temporary_file::permissions::before_umask);
    place(journal, journal_of(name), has_journal);
    try {
        place(media, name, has_media);
    } catch (const obstacle &) {
        unlinkat(directory, journal_of(name).c_str(), 0);
        throw;
    }
    return {media.take(), journal.take()};
}

} // namespace

void check_names(int directory, const std::string &name, bool replaces)
{
    for (const std::string &each : {name, journal_of(name)}) {
        struct stat status;
        if (replaces)
            claim_old(directory, each);
        else if (exists(directory, each, status))
            throw system_failure(EEXIST);
    }
}

new_files make_files(int directory, const std::string &name, uint32_t mode, bool replaces)
{
    if (replaces) {
        const descriptor media = claim_old(directory, name), journal = claim_old(directory, journal_of(name));
        if (media.is_open() || journal.is_open())
            return make_replacements(directory, name, mode, media.is_open(), journal.is_open());
    }
    return make_new(directory, name, mode);
}

} // namespace mediafiles::recorder
