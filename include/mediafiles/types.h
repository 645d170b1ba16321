/**
 * Forward declarations of every record of the library, and the macros that
 * its headers share. Each typedef stands here once.
 */
#ifndef MEDIAFILES_TYPES_H
#define MEDIAFILES_TYPES_H

#include <stdint.h>

#define MEDIAFILES_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define MEDIAFILES_BEGIN_DECLS extern "C" {
#define MEDIAFILES_END_DECLS }
#else
#define MEDIAFILES_BEGIN_DECLS
#define MEDIAFILES_END_DECLS
#endif

typedef struct array_stream array_stream;               /* opaque */
typedef struct mediafile_caretaker mediafile_caretaker; /* opaque */
typedef struct memento memento;

typedef struct mp4_time mp4_time;
typedef struct mp4_gather_list mp4_gather_list;
typedef struct mp4_stream mp4_stream;
typedef struct mp4_atom mp4_atom;
typedef struct mp4_list mp4_list;
typedef struct mp4_descriptor mp4_descriptor;
typedef struct mp4_track mp4_track;
typedef struct mp4_video_desc mp4_video_desc;
typedef struct mp4_audio_desc mp4_audio_desc;
typedef struct mp4_track_desc mp4_track_desc;
typedef struct mp4_frame mp4_frame;
typedef struct mp4_track_span mp4_track_span;
typedef struct mp4_movie mp4_movie;
typedef struct mp4_builder mp4_builder;
typedef struct mp4_fix_track mp4_fix_track;
typedef struct mp4_fix_info mp4_fix_info;

typedef struct h264_bs h264_bs;
typedef struct h264_nal_header h264_nal_header;
typedef struct h264_slice_header h264_slice_header;
typedef struct h264_sps h264_sps;

/* Read by the same code from either codec. */
typedef h264_bs h265_bs;
typedef h264_slice_header h265_slice_header;
typedef h264_sps h265_sps;

typedef struct h265_nal_header h265_nal_header;
typedef struct h265_vps h265_vps;

#endif
