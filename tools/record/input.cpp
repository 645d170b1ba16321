#include "tools/record/input.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

#include "tools/failure.h"

namespace tools {

namespace {

constexpr rational to_rational(AVRational value)
{
    return {value.num, value.den};
}

bool is_positive(AVRational value)
{
    return value.num > 0 && value.den > 0;
}

/* The rate that the source states or that probing found; 25 is what libavformat takes for raw video, too. */
rational frame_rate_of(const AVStream *stream, const input_options &options)
{
    if (options.frame_rate) return *options.frame_rate;
    if (is_positive(stream->avg_frame_rate)) return to_rational(stream->avg_frame_rate);
    if (is_positive(stream->r_frame_rate)) return to_rational(stream->r_frame_rate);
    return {25, 1};
}

rational frame_duration_of(codec kind, const AVCodecParameters *parameters, rational frame_rate)
{
    return kind == codec::aac ? rational{1024, parameters->sample_rate} : rational{frame_rate.den, frame_rate.num};
}

std::span<const uint8_t> extradata(const AVCodecParameters *parameters)
{
    return {parameters->extradata, static_cast<size_t>(std::max(parameters->extradata_size, 0))};
}

uint32_t channels_of(const AVCodecParameters *parameters)
{
    return static_cast<uint32_t>(parameters->ch_layout.nb_channels);
}

uint32_t rate_of(const AVCodecParameters *parameters)
{
    return static_cast<uint32_t>(parameters->sample_rate);
}

codec codec_of(const AVCodecParameters *parameters)
{
    switch (parameters->codec_id) {
    case AV_CODEC_ID_H264:
        return codec::h264;
    case AV_CODEC_ID_HEVC:
        return codec::h265;
    default:
        return codec::aac;
    }
}

mp4_track_desc describe(codec kind, const AVCodecParameters *parameters)
{
    mp4_track_desc description{};
    if (kind == codec::aac) {
        description.type = MP4_TRACK_AAC;
        description.audio = {channels_of(parameters), 16, rate_of(parameters)};
    } else {
        description.type = kind == codec::h264 ? MP4_TRACK_H264 : MP4_TRACK_H265;
        description.video = {static_cast<uint32_t>(parameters->width), static_cast<uint32_t>(parameters->height), 0};
    }
    return description;
}

/* Length-prefixed NAL units, as in MP4 and Matroska files, become Annex B; everything else passes as it is. */
filter_ptr make_filter(const AVStream *stream)
{
    const AVCodecParameters *parameters = stream->codecpar;
    const auto header = extradata(parameters);
    const bool length_prefixed = !header.empty() && header[0] == 1;
    const char *name = "null";
    if (length_prefixed && parameters->codec_id == AV_CODEC_ID_H264) name = "h264_mp4toannexb";
    if (length_prefixed && parameters->codec_id == AV_CODEC_ID_HEVC) name = "hevc_mp4toannexb";

    AVBSFContext *made = nullptr;
    if (av_bsf_list_parse_str(name, &made) < 0) throw std::bad_alloc();
    filter_ptr filter(made);
    filter->time_base_in = stream->time_base;
    if (avcodec_parameters_copy(filter->par_in, parameters) < 0) throw std::bad_alloc();
    const int result = av_bsf_init(filter.get());
    if (result < 0) throw std::invalid_argument("its parameter sets cannot be read: " + libav_error(result));
    return filter;
}

std::string kind_and_codec(const AVStream *stream)
{
    const char *kind = av_get_media_type_string(stream->codecpar->codec_type);
    return std::string(kind ? kind : "unknown") + ", " + avcodec_get_name(stream->codecpar->codec_id);
}

/* Why a stream cannot be recorded; empty when it can. */
std::string objection_to(const AVStream *stream)
{
    const AVCodecParameters *parameters = stream->codecpar;
    switch (parameters->codec_id) {
    case AV_CODEC_ID_H264:
    case AV_CODEC_ID_HEVC:
        if ((stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) return "an attached picture";
        if (parameters->width < 1 || parameters->height < 1) return "its picture size is not known";
        if (parameters->width > UINT16_MAX || parameters->height > UINT16_MAX) return "its pictures are too large";
        return {};
    case AV_CODEC_ID_AAC:
        if (parameters->profile != FF_PROFILE_UNKNOWN && parameters->profile != FF_PROFILE_AAC_LOW) {
            const char *profile = avcodec_profile_name(parameters->codec_id, parameters->profile);
            return "profile " + std::string(profile ? profile : "unknown") + "; AAC-LC can be recorded";
        }
        return objection(extradata(parameters), rate_of(parameters), channels_of(parameters));
    default:
        return "H.264, H.265 and AAC-LC can be recorded";
    }
}

} // namespace

source_stream::source_stream(const AVStream *stream, const input_options &options)
    : source_(stream), kind_(codec_of(stream->codecpar)), description_(describe(kind_, stream->codecpar)),
      filter_(make_filter(stream)), frame_rate_(frame_rate_of(stream, options)),
      clock_(to_rational(stream->time_base), frame_duration_of(kind_, stream->codecpar, frame_rate_),
             start().value_or(0))
{
    if (kind_ != codec::aac) order_.emplace(filter_->par_out);
}

std::optional<int64_t> source_stream::start() const
{
    if (source_->start_time == AV_NOPTS_VALUE) return std::nullopt;
    return to_nanoseconds(source_->start_time, to_rational(source_->time_base));
}

std::optional<rational> source_stream::timed_by() const
{
    if (kind_ == codec::aac || source_->start_time != AV_NOPTS_VALUE) return std::nullopt;
    return frame_rate_;
}

frame source_stream::convert(packet_ptr packet)
{
    ++packets_;
    frame result;
    std::optional<int64_t> timestamp;
    if (packet->pts != AV_NOPTS_VALUE)
        timestamp = packet->pts;
    else if (packet->dts != AV_NOPTS_VALUE)
        timestamp = packet->dts;
    result.time = clock_.next(timestamp);
    result.damaged = (packet->flags & AV_PKT_FLAG_CORRUPT) != 0;

    /* The filter would take an empty packet for the end of the stream. */
    result.readable = packet->size == 0 || (av_bsf_send_packet(filter_.get(), packet.get()) == 0 &&
                                            av_bsf_receive_packet(filter_.get(), packet.get()) == 0);
    if (order_ && result.readable && packet->size > 0) result.reordered = order_->goes_back(packet.get());
    result.packet = std::move(packet);
    return result;
}

int source_stream::missing() const
{
    return avformat_index_get_entries_count(source_) - packets_;
}

input::input(const input_options &options, const std::atomic<bool> &cancelled) : options_(options)
{
    AVFormatContext *context = avformat_alloc_context();
    if (!context) throw std::bad_alloc();
    const auto is_cancelled = [](void *flag) -> int { return static_cast<const std::atomic<bool> *>(flag)->load(); };
    context->interrupt_callback = {is_cancelled, const_cast<std::atomic<bool> *>(&cancelled)};

    /* A name that is a file is that file, whatever its name looks like. */
    std::string url = name();
    struct stat status;
    if (url == "-")
        url = "pipe:0";
    else if (stat(url.c_str(), &status) == 0)
        url = "file:" + url;
    int result = avformat_open_input(&context, url.c_str(), options_.format, nullptr);
    if (result >= 0) format_.reset(context);
    const auto end_if_cancelled = [&] {
        if (cancelled) throw failure("stopped", name(), "nothing was recorded yet");
    };
    end_if_cancelled();
    if (result < 0) throw failure("cannot open", name(), libav_error(result));
    /* Frames are not counted to guess a rate: without timestamps that would delay a live source for seconds. */
    context->fps_probe_size = 0;
    result = avformat_find_stream_info(context, nullptr);
    end_if_cancelled();
    if (result < 0) throw failure("cannot read", name(), libav_error(result));

    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        format_->streams[i]->discard = AVDISCARD_ALL;
        select(format_->streams[i]);
    }
    for (source_stream &stream : streams_) format_->streams[stream.source()->index]->discard = AVDISCARD_DEFAULT;
}

void input::select(const AVStream *stream)
{
    std::string why = objection_to(stream);
    if (why.empty()) {
        try {
            streams_.emplace_back(stream, options_);
            return;
        } catch (const std::invalid_argument &unusable) {
            why = unusable.what();
        }
    }
    others_.push_back({stream->index, kind_and_codec(stream), why});
}

void input::leave_out(size_t stream, std::string why)
{
    const AVStream *source = streams_[stream].source();
    format_->streams[source->index]->discard = AVDISCARD_ALL;
    others_.push_back({source->index, kind_and_codec(source), std::move(why)});
    streams_.erase(streams_.begin() + static_cast<std::ptrdiff_t>(stream));
}

int64_t input::start() const
{
    std::optional<int64_t> earliest;
    for (const source_stream &stream : streams_) {
        const auto start = stream.start();
        if (start && (!earliest || *start < *earliest)) earliest = start;
    }
    return earliest.value_or(0);
}

bool input::can_wait() const
{
    if (!format_->pb) return false; // the demuxer has a connection of its own
    const char *protocol = avio_find_protocol_name(format_->url);
    constexpr std::string_view datagrams[] = {"udp", "udplite", "rtp", "srtp", "srt"};
    return !protocol || std::ranges::find(datagrams, protocol) == std::end(datagrams);
}

std::optional<struct stat> input::file() const
{
    struct stat status;
    const std::string path = name().starts_with("file:") ? name().substr(5) : name();
    if ((name() == "-" ? fstat(0, &status) : stat(path.c_str(), &status)) != 0) return std::nullopt;
    return status;
}

std::optional<frame> input::read()
{
    for (;;) {
        packet_ptr packet(av_packet_alloc());
        if (!packet) throw std::bad_alloc();
        int result = av_read_frame(format_.get(), packet.get());
        /* Demuxers report the end where the transport below them has failed. */
        if (result == AVERROR_EOF && format_->pb && format_->pb->error < 0) result = format_->pb->error;
        const AVIOInterruptCB &cancelled = format_->interrupt_callback;
        if (result == AVERROR_EXIT || cancelled.callback(cancelled.opaque) != 0) return std::nullopt;
        if (result == AVERROR_EOF) {
            check_completeness();
            return std::nullopt;
        }
        if (result == AVERROR(EAGAIN)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        if (result < 0) throw failure("reading stopped", name(), libav_error(result));

        for (size_t i = 0; i < streams_.size(); ++i) {
            if (streams_[i].source()->index != packet->stream_index) continue;
            frame next = streams_[i].convert(std::move(packet));
            next.stream = i;
            return next;
        }
    }
}

void input::check_completeness() const
{
    for (const source_stream &stream : streams_) {
        if (stream.missing() <= 0) continue;
        const std::string count = std::to_string(stream.missing());
        throw failure("reading stopped", name(),
                      count + " frames of stream " + std::to_string(stream.source()->index) + " are missing");
    }
}

} // namespace tools
