/**
 * Owners for the objects of libavformat and libavcodec, and their errors in
 * words.
 */
#ifndef TOOLS_RECORD_LIBAV_H
#define TOOLS_RECORD_LIBAV_H

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

namespace tools {

/** Releases through a function that takes the pointer's address. */
template <auto Release>
struct release_by_address {
    void operator()(auto *object) const { Release(&object); }
};

/** Releases through a function that takes the pointer. */
template <auto Release>
struct release_by_value {
    void operator()(auto *object) const { Release(object); }
};

using packet_ptr = std::unique_ptr<AVPacket, release_by_address<av_packet_free>>;
using format_ptr = std::unique_ptr<AVFormatContext, release_by_address<avformat_close_input>>;
using filter_ptr = std::unique_ptr<AVBSFContext, release_by_address<av_bsf_free>>;
using codec_ptr = std::unique_ptr<AVCodecContext, release_by_address<avcodec_free_context>>;
using parser_ptr = std::unique_ptr<AVCodecParserContext, release_by_value<av_parser_close>>;

inline std::string libav_error(int code)
{
    if (code == AVERROR_EXIT) return "stopped before anything was recorded";
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

} // namespace tools

#endif
