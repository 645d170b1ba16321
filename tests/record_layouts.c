/*
 * The public records as programs of devices are compiled against them: sizes with pointers of 32 and of 64 bits, and
 * offsets where a record ends in padding. The ABI check has all fields, in the order of one processor. Every build
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

void streams_and_boxes(SIZE(mp4_time, 8, 8), SIZE(mp4_gather_list, 16, 24), AT(mp4_gather_list, length, 12, 16),
                       SIZE(mp4_stream, 32, 64), SIZE(mp4_atom, 20, 32), AT(mp4_atom, movie, 12, 16),
                       SIZE(mp4_descriptor, 28, 56), AT(mp4_descriptor, size, 8, 16));

void movies(SIZE(mp4_video_desc, 12, 12), SIZE(mp4_audio_desc, 12, 12), AT(mp4_track_desc, video, 4, 4),
            SIZE(mp4_track_desc, 16, 16), SIZE(mp4_frame, 24, 32), AT(mp4_frame, key, 20, 28),
            SIZE(mp4_track_span, 20, 20), SIZE(mp4_movie, 212, 288), AT(mp4_movie, tracks, 128, 128),
            AT(mp4_movie, stream, 196, 264), AT(mp4_movie, bytes, 208, 284), SIZE(mp4_builder, 56, 104),
            AT(mp4_builder, movie, 24, 48), AT(mp4_builder, meta_stream, 48, 88));

void tracks(AT(mp4_track, stts_table, 8, 8), AT(mp4_track, cache_samples, 40, 64), AT(mp4_track, stream, 44, 72),
            AT(mp4_track, common_size, 60, 96), AT(mp4_track, delay, 88, 128), AT(mp4_track, duration, 96, 136),
            AT(mp4_track, audio, 104, 144), AT(mp4_track, codec_data, 112, 152), AT(mp4_track, set_sei, 144, 216),
            SIZE(mp4_track, TRACK_SIZE, 224));

void journal_repair_and_parsers(AT(memento, length, 2, 2), SIZE(memento, 4, 4), SIZE(mp4_fix_track, 28, 28),
                                AT(mp4_fix_info, tracks, 16, 16), SIZE(mp4_fix_info, 240, 240),
                                AT(h264_bs, last_bytes, 16, 20), SIZE(h264_bs, 20, 24), SIZE(h264_nal_header, 3, 3),
                                SIZE(h264_slice_header, 8, 8), SIZE(h264_sps, 8, 8), SIZE(h265_nal_header, 4, 4),
                                SIZE(h265_vps, 12, 12));
