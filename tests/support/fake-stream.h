/** An output stream that keeps what it is given, logs every operation and fails the one that it is told to fail. */
#pragma once

#include <cerrno>
#include <memory>

#include <mediafiles/stream.h>

#include "hex.h"

struct fake_stream : mp4_stream {
    bytes content;
    uint32_t at = 0;          // position
    std::string log;          // " w4 v12 s0": write, gather write and seek, with length or target
    std::vector<size_t> runs; // entry lengths of the latest gather write
    int calls = 0;            // operations that can fail, so far
    int fail_at = -1;         // the one that fails
    int fail_errno = EIO;

    fake_stream() : mp4_stream{
        .write = [](mp4_stream *s, const void *data, uint32_t n) { return self(s).put('w', n, bytes_at(data, n)); },
        .writev = [](mp4_stream *s, const mp4_gather_list *list) {
            bytes all;
            self(s).runs.clear();
            for (const iovec *run = list->iov; run != list->iov + list->iovcnt; ++run) {
                overlay(all, all.size(), bytes_at(run->iov_base, run->iov_len));
                self(s).runs.push_back(run->iov_len);
            }
            return self(s).put('v', list->length, all);
        },
        .copy_to = [](mp4_stream *, mp4_stream *) { return errno = ENOSYS, -1; },
        .flush = [](mp4_stream *s) { return self(s).put('f', 0, {}); },
        .clear = [](mp4_stream *) { return errno = ENOSYS, -1; },
        .tell = [](mp4_stream *s) { return self(s).at; },
        .seek = [](mp4_stream *s, uint32_t to) { return self(s).put('s', to, {}) == 0 ? self(s).at = to, 0 : -1; },
        .destroy = [](mp4_stream *) {},
    } {}

private:
    static fake_stream &self(mp4_stream *stream) { return *static_cast<fake_stream *>(stream); }
    static bytes bytes_at(const void *data, size_t length)
    {
        return bytes(static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + length);
    }
    int put(char operation, uint32_t number, const bytes &data)
    {
        log += std::string(" ") + operation + std::to_string(number);
        if (calls++ == fail_at) return errno = fail_errno, -1;
        overlay(content, at, data);
        at += static_cast<uint32_t>(data.size());
        return 0;
    }
};

struct stream_destroy {
    void operator()(mp4_stream *stream) const { stream->destroy(stream); }
};
using stream_ptr = std::unique_ptr<mp4_stream, stream_destroy>;
