/*
 * The public records, field by field, as programs of devices are compiled
 * against them: offset or size with pointers of 32 and of 64 bits. Every build
 * checks its own column; an array of -1 elements names what is elsewhere.
 */
#include <stddef.h>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/descriptor.h>
#include <mediafiles/fix.h>
#include <mediafiles/h264-parser.h>
#include <mediafiles/h265-parser.h>
#include <mediafiles/movie.h>
#include <mediafiles/stream.h>
#include <mediafiles/track.h>

#define HOLDS(actual, on32, on64) [(actual) == (sizeof(void *) == 4 ? (on32) : (on64)) ? 1 : -1]
#define AT(record, field, on32, on64) char record##_##field HOLDS(offsetof(struct record, field), on32, on64)
#define SIZE(record, on32, on64) char size_of_##record HOLDS(sizeof(struct record), on32, on64)
#ifdef __i386__
#define TRACK_SIZE 148 /* 64-bit numbers are aligned to 4 bytes within records */
#else
#define TRACK_SIZE 152
#endif

_Static_assert(sizeof(void *) == 4 || sizeof(void *) == 8, "pointers of 32 or 64 bits");

void streams_and_boxes(SIZE(mp4_time, 8, 8), AT(mp4_gather_list, iovcnt, 4, 8), AT(mp4_gather_list, offset, 8, 12),
                       AT(mp4_gather_list, length, 12, 16), SIZE(mp4_gather_list, 16, 24), AT(mp4_stream, writev, 4, 8),
                       AT(mp4_stream, copy_to, 8, 16), AT(mp4_stream, flush, 12, 24), AT(mp4_stream, clear, 16, 32),
                       AT(mp4_stream, tell, 20, 40), AT(mp4_stream, seek, 24, 48), AT(mp4_stream, destroy, 28, 56),
                       SIZE(mp4_stream, 32, 64), AT(mp4_atom, type, 4, 8), AT(mp4_atom, start, 8, 12),
                       AT(mp4_atom, movie, 12, 16), AT(mp4_atom, track, 16, 24), SIZE(mp4_atom, 20, 32),
                       AT(mp4_descriptor, data, 4, 8), AT(mp4_descriptor, size, 8, 16),
                       AT(mp4_descriptor, children, 12, 24), AT(mp4_descriptor, link, 20, 40),
                       SIZE(mp4_descriptor, 28, 56));

void movies(SIZE(mp4_video_desc, 12, 12), SIZE(mp4_audio_desc, 12, 12), AT(mp4_track_desc, video, 4, 4),
            AT(mp4_track_desc, audio, 4, 4), SIZE(mp4_track_desc, 16, 16), AT(mp4_frame, data, 4, 8),
            AT(mp4_frame, len, 8, 16), AT(mp4_frame, timestamp, 12, 20), AT(mp4_frame, key, 20, 28),
            SIZE(mp4_frame, 24, 32), AT(mp4_track_span, first, 4, 4), AT(mp4_track_span, last, 12, 12),
            SIZE(mp4_track_span, 20, 20), AT(mp4_movie, tracks, 128, 128), AT(mp4_movie, spans, 160, 192),
            AT(mp4_movie, next_track_id, 192, 256), AT(mp4_movie, stream, 196, 264), AT(mp4_movie, caretaker, 200, 272),
            AT(mp4_movie, error, 204, 280), AT(mp4_movie, bytes, 208, 284), SIZE(mp4_movie, 212, 288),
            AT(mp4_builder, open, 4, 8), AT(mp4_builder, close, 8, 16), AT(mp4_builder, add_frame, 12, 24),
            AT(mp4_builder, flush, 16, 32), AT(mp4_builder, destroy, 20, 40), AT(mp4_builder, movie, 24, 48),
            AT(mp4_builder, mdat, 28, 56), AT(mp4_builder, meta_stream, 48, 88), AT(mp4_builder, file_stream, 52, 96),
            SIZE(mp4_builder, 56, 104));

void tracks(AT(mp4_track, media_kind, 4, 4), AT(mp4_track, stts_table, 8, 8), AT(mp4_track, stsz_table, 24, 40),
            AT(mp4_track, cache, 28, 48), AT(mp4_track, cache_samples, 40, 64), AT(mp4_track, stream, 44, 72),
            AT(mp4_track, index, 52, 88), AT(mp4_track, flags, 56, 92), AT(mp4_track, common_size, 60, 96),
            AT(mp4_track, chunk_offset, 68, 104), AT(mp4_track, chunk_count, 80, 116),
            AT(mp4_track, timescale, 84, 120), AT(mp4_track, delay, 88, 128), AT(mp4_track, duration, 96, 136),
            AT(mp4_track, video, 104, 144), AT(mp4_track, audio, 104, 144), AT(mp4_track, codec_data, 112, 152),
            AT(mp4_track, on_begin_record, 116, 160), AT(mp4_track, add_sample, 124, 176),
            AT(mp4_track, set_vps, 132, 192), AT(mp4_track, set_sei, 144, 216), SIZE(mp4_track, TRACK_SIZE, 224));

void journal_repair_and_parsers(AT(memento, track, 1, 1), AT(memento, length, 2, 2), SIZE(memento, 4, 4),
                                AT(mp4_fix_track, timespan, 16, 16), AT(mp4_fix_track, frameCount, 24, 24),
                                SIZE(mp4_fix_track, 28, 28), AT(mp4_fix_info, fileSize, 8, 8),
                                AT(mp4_fix_info, trackCount, 12, 12), AT(mp4_fix_info, tracks, 16, 16),
                                SIZE(mp4_fix_info, 240, 240), AT(h264_bs, left, 4, 8), AT(h264_bs, last_bytes, 16, 20),
                                SIZE(h264_bs, 20, 24), SIZE(h264_nal_header, 3, 3), SIZE(h264_slice_header, 8, 8),
                                SIZE(h264_sps, 8, 8), SIZE(h265_nal_header, 4, 4), SIZE(h265_vps, 12, 12));
