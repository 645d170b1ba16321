/* libavformat as a recorder of the work: both tracks into an output of any of its formats. */
#ifndef BENCH_LIBAV_H
#define BENCH_LIBAV_H

#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>

#include "work.h"

struct libav_output {
    AVFormatContext *context;
    AVBSFContext *strip_adts; /* the muxer takes AAC frames without ADTS headers alone */
    AVPacket *packet;
};

/* Where it writes, and its options, are left to the caller, and then avformat_write_header. */
struct libav_output libav_open(const struct work *work, const char *format, const char *path);

/* Gives a frame to the muxer, video with its start codes. */
void libav_add(struct libav_output *output, const struct work_unit *unit);

#endif
