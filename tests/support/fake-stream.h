/** An output stream that keeps what it is given, logs every operation and fails one of them on demand. */
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

    fake_stream() : mp4_stream{write_one, write_list, nullptr, flush_all, nullptr, position, seek_to, keep} {}

private:
    static fake_stream &self(mp4_stream *stream) { return *static_cast<fake_stream *>(stream); }
    static int write_one(mp4_stream *s, const void *data, uint32_t n)
    {
        const iovec run = {const_cast<void *>(data), n};
        return self(s).put('w', n, &run, 1);
    }
    static int write_list(mp4_stream *s, const mp4_gather_list *list)
    {
        self(s).runs.clear();
        for (int i = 0; i < list->iovcnt; i++) self(s).runs.push_back(list->iov[i].iov_len);
        return self(s).put('v', list->length, list->iov, list->iovcnt);
    }
    static int flush_all(mp4_stream *s) { return self(s).put('f', 0); }
    static uint32_t position(mp4_stream *s) { return self(s).at; }
    static int seek_to(mp4_stream *s, uint32_t to) { return self(s).put('s', to) == 0 ? self(s).at = to, 0 : -1; }
    static void keep(mp4_stream *) {}

    int put(char operation, uint32_t number, const iovec *runs_of_it = nullptr, int count = 0)
    {
        log += std::string(" ") + operation + std::to_string(number);
        if (calls++ == fail_at) return errno = fail_errno, -1;
        for (const iovec *run = runs_of_it; count-- > 0; at += static_cast<uint32_t>(run++->iov_len)) {
            const auto *data = static_cast<const uint8_t *>(run->iov_base);
            overlay(content, at, bytes(data, data + run->iov_len));
        }
        return 0;
    }
};

struct stream_destroy {
    void operator()(mp4_stream *stream) const { stream->destroy(stream); }
};
using stream_ptr = std::unique_ptr<mp4_stream, stream_destroy>;
