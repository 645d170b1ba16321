#include "frame.h"

#include <algorithm>
#include <cstring>

#include <mediafiles/h264-parser.h>

#include "adts.h"
#include "codec.h"
#include "parameter-set.h"
#include "window.h"

namespace mediafiles::recorder {

namespace {

using recovery::codec;

constexpr uint32_t length_size = 4; // of a NAL unit in its sample
constexpr uint32_t largest_sample = INT32_MAX;
constexpr uint32_t recovery_point_type = 6; // SEI payloadType, of both codecs

/* Bytes of the pieces at positions that never go back. */
class piece_reader {
public:
    explicit piece_reader(frame_pieces pieces) : pieces_(pieces) {}

    /* Copies count bytes from a position on, or as many as there are. */
    uint32_t copy(uint32_t position, uint8_t *to, uint32_t count)
    {
        if (pieces_.size() == 1) {
            const size_t size = pieces_[0].iov_len;
            const auto some = static_cast<uint32_t>(std::min<size_t>(position < size ? size - position : 0, count));
            memcpy(to, static_cast<const uint8_t *>(pieces_[0].iov_base) + position, some);
            return some;
        }
        for (; index_ < pieces_.size() && position - begin_ >= pieces_[index_].iov_len; ++index_)
            begin_ += static_cast<uint32_t>(pieces_[index_].iov_len);
        uint32_t done = 0;
        size_t at = position - begin_;
        for (size_t i = index_; i < pieces_.size() && done < count; ++i, at = 0) {
            const size_t some = std::min<size_t>(pieces_[i].iov_len - at, count - done);
            if (some == 0) continue;
            memcpy(to + done, static_cast<const uint8_t *>(pieces_[i].iov_base) + at, some);
            done += static_cast<uint32_t>(some);
        }
        return done;
    }

private:
    frame_pieces pieces_;
    size_t index_ = 0;
    uint32_t begin_ = 0; // position of the piece
};

struct start_code {
    uint32_t begin; // of all zeros before the 1
    uint32_t end;   // the NAL unit begins here
    bool found;     // else begin is where the zeros at the frame's end begin
};

/* Start codes one after the other, also those that are cut by the end of a piece. */
class start_code_search {
public:
    explicit start_code_search(frame_pieces pieces, uint32_t from = 0) : pieces_(pieces)
    {
        while (!pieces_.empty() && from - begin_ >= pieces_[0].iov_len) next_piece();
        at_ = from - begin_;
    }

    start_code next()
    {
        for (; !pieces_.empty(); next_piece()) {
            const auto *data = static_cast<const uint8_t *>(pieces_[0].iov_base);
            const auto size = static_cast<uint32_t>(pieces_[0].iov_len);
            while (at_ < size) {
                const start_code code = zeros_ != 0 ? after_zeros(data[at_]) : within(data, size);
                if (code.found) return code;
            }
        }
        return {begin_ - zeros_, begin_, false};
    }

private:
    void next_piece()
    {
        begin_ += static_cast<uint32_t>(pieces_[0].iov_len);
        pieces_ = pieces_.subspan(1);
        at_ = 0;
    }

    /* One byte: the piece before ended in zeros. */
    start_code after_zeros(uint8_t byte)
    {
        const uint32_t zeros = zeros_;
        ++at_;
        zeros_ = byte == 0 ? zeros + 1 : 0;
        return {begin_ + at_ - 1 - zeros, begin_ + at_, byte == 1 && zeros >= 2};
    }

    /* What is left of the piece. */
    start_code within(const uint8_t *data, uint32_t size)
    {
        uint32_t offset, length;
        const bool found = h264_parser_find_start_code(data + at_, size - at_, &offset, &length) != 0;
        const uint32_t end = found ? at_ + offset : size;
        uint32_t zeros_begin = end;
        while (zeros_begin > at_ && data[zeros_begin - 1] == 0) --zeros_begin;
        at_ = found ? end + length : size;
        zeros_ = found ? 0 : end - zeros_begin;
        return {begin_ + zeros_begin, begin_ + at_, found};
    }

    frame_pieces pieces_;
    uint32_t begin_ = 0; // position of the first piece that is left
    uint32_t at_ = 0;    // in it
    uint32_t zeros_ = 0; // directly before at_, of the pieces before
};

/* The bytes of a NAL unit without emulation prevention (ISO/IEC 14496-10, 7.4.1). */
class payload_bytes {
public:
    payload_bytes(piece_reader &reader, uint32_t begin, uint32_t size) : reader_(reader), at_(begin), end_(begin + size)
    {
    }

    /* -1 at the end. */
    int next()
    {
        int byte = fetch();
        if (byte == 3 && zeros_ >= 2) {
            zeros_ = 0;
            byte = fetch();
        }
        zeros_ = byte == 0 ? zeros_ + 1 : 0;
        return byte;
    }

private:
    int fetch()
    {
        if (used_ == filled_) {
            filled_ = reader_.copy(at_, buffer_, std::min<uint32_t>(sizeof buffer_, end_ - at_));
            at_ += filled_;
            used_ = 0;
        }
        return used_ == filled_ ? -1 : buffer_[used_++];
    }

    piece_reader &reader_;
    uint32_t at_, end_;
    uint8_t buffer_[64];
    uint32_t used_ = 0, filled_ = 0, zeros_ = 0;
};

/* ISO/IEC 14496-10, 7.3.2.3.1: a number as a row of 255 and a rest; -1 at the end. */
int64_t sei_number(payload_bytes &bytes)
{
    int64_t sum = 0;
    for (;;) {
        const int byte = bytes.next();
        if (byte < 0) return -1;
        sum += byte;
        if (byte != 0xFF) return sum;
    }
}

bool has_recovery_point(payload_bytes bytes)
{
    for (;;) {
        const int64_t type = sei_number(bytes);
        int64_t size = sei_number(bytes);
        if (size < 0) return false;
        if (type == recovery_point_type) return true;
        for (; size > 0; --size)
            if (bytes.next() < 0) return false;
    }
}

/* The NAL units that matter here, beside those that codec.h knows. */
bool is_sei(const codec &codec, uint8_t type)
{
    return type == (codec.unit_header == 1 ? 6 : 39);
}
bool is_slice(const codec &codec, uint8_t type)
{
    return codec.unit_header == 1 ? type == 1 || type == 2 || type == 5 : type < 32;
}
/* nuh_layer_id (ISO/IEC 23008-2, 7.3.1.2): only layer 0 is described. */
bool is_upper_layer(const codec &codec, const uint8_t *header)
{
    return codec.unit_header == 2 && ((header[0] & 1) != 0 || header[1] >> 3 != 0);
}

void look_at_slice(const codec &codec, uint8_t type, uint8_t first_byte, frame_facts &facts)
{
    // first_mb_in_slice is 0, which is one bit, 1; first_slice_segment_in_pic_flag
    if (!facts.has_slices) facts.begins_picture = (first_byte & 0x80) != 0;
    facts.has_slices = true;
    facts.key |= codec.is_key(type);
}

frame_fault look_at_set(uint32_t track_type, uint8_t kind, piece_reader &reader, frame_facts::extent unit,
                        frame_facts &facts)
{
    uint8_t head[set_head];
    const uint32_t size = reader.copy(unit.begin, head, std::min(unit.size, set_head));
    facts.has_sets = true;
    return set_number(track_type, kind, {head, size}) ? frame_fault::none : frame_fault::bad_set;
}

frame_fault look_at_unit(uint32_t track_type, piece_reader &reader, frame_facts::extent unit, frame_facts &facts)
{
    const codec &codec = *recovery::codec_of(track_type);
    uint8_t head[3];
    if (unit.size < codec.unit_header) return frame_fault::truncated_header;
    reader.copy(unit.begin, head, std::min<uint32_t>(unit.size, sizeof head));
    if (is_upper_layer(codec, head)) return frame_fault::none;

    const uint8_t type = codec.unit_type(head[0]);
    if (is_slice(codec, type)) {
        if (unit.size == codec.unit_header) return frame_fault::truncated_header;
        look_at_slice(codec, type, head[codec.unit_header], facts);
    } else if (const uint8_t kind = codec.set_kind(type); kind != recovery::no_set) {
        return look_at_set(track_type, kind, reader, unit, facts);
    } else if (is_sei(codec, type)) {
        facts.recovery_point |=
            has_recovery_point({reader, unit.begin + codec.unit_header, unit.size - codec.unit_header});
    }
    return frame_fault::none;
}

frame_fault look_at_video(uint32_t track_type, frame_pieces pieces, frame_facts &facts)
{
    start_code_search search(pieces);
    piece_reader reader(pieces);
    uint64_t stored = 0;
    start_code code = search.next();
    if (!code.found || code.begin != 0) return frame_fault::no_start_code;
    while (code.found) {
        const uint32_t begin = code.end;
        code = search.next();
        const frame_facts::extent unit = {begin, code.begin - begin};
        const frame_fault fault = look_at_unit(track_type, reader, unit, facts);
        if (fault != frame_fault::none) return fault;
        if (facts.unit_count < facts.most_noted) facts.noted[facts.unit_count] = unit;
        ++facts.unit_count;
        stored += uint64_t{length_size} + unit.size;
    }
    if (stored > largest_sample) return frame_fault::too_large;
    facts.stored_size = static_cast<uint32_t>(stored);
    return frame_fault::none;
}

frame_fault look_at_sound(const mp4_audio_desc &audio, frame_pieces pieces, uint32_t size, frame_facts &facts)
{
    uint8_t head[adts_header::most];
    const uint32_t got = piece_reader(pieces).copy(0, head, sizeof head);
    const adts_header header = read_adts(audio, {head, got}, size);
    facts.key = facts.has_slices = facts.begins_picture = true;
    facts.stored_size = size - header.size;
    facts.unit_count = 1;
    facts.noted[0] = {header.size, facts.stored_size};
    if (header.fault != frame_fault::none) return header.fault;
    /* One byte has no place for an element before the end of the raw data block (ISO/IEC 14496-3, 4.4.2.1). */
    return facts.stored_size == 1 ? frame_fault::empty : frame_fault::none;
}

frame_fault look(const mp4_track_desc &track, frame_pieces pieces, frame_facts &facts)
{
    uint64_t size = 0;
    for (const iovec &piece : pieces) size += piece.iov_len;
    if (size == 0) return frame_fault::empty;
    if (size > largest_sample) return frame_fault::too_large;
    if (recovery::is_video(track)) return look_at_video(track.type, pieces, facts);
    return look_at_sound(track.audio, pieces, static_cast<uint32_t>(size), facts);
}

} // namespace

frame_facts look_at_frame(const mp4_track_desc &track, frame_pieces pieces)
{
    frame_facts facts;
    facts.fault = look(track, pieces, facts);
    return facts;
}

void store_frame(const mp4_track_desc &track, frame_pieces pieces, const frame_facts &facts, uint8_t *to)
{
    piece_reader reader(pieces);
    if (!recovery::is_video(track)) {
        reader.copy(facts.noted[0].begin, to, facts.noted[0].size);
        return;
    }
    uint32_t left = facts.stored_size;
    const auto store = [&](uint32_t begin, uint32_t size) {
        if (left < length_size || left - length_size < size) return; // the caller changes the frame meanwhile
        left -= length_size + size;
        recovery::store_be32(to, size);
        to += length_size + reader.copy(begin, to + length_size, size);
    };
    const uint32_t noted = std::min(facts.unit_count, facts.most_noted);
    for (uint32_t i = 0; i < noted; ++i) store(facts.noted[i].begin, facts.noted[i].size);
    if (noted == facts.unit_count) return;

    start_code_search search(pieces, facts.noted[noted - 1].begin + facts.noted[noted - 1].size);
    for (start_code code = search.next(); code.found;) {
        const uint32_t begin = code.end;
        code = search.next();
        store(begin, code.begin - begin);
    }
}

std::optional<parameter_set> set_reader::next()
{
    const codec *codec = recovery::codec_of(type_);
    while (codec && codec->is_video() && rest_.size() >= length_size) {
        const size_t size = std::min<size_t>(recovery::be32(rest_.data()), rest_.size() - length_size);
        const auto unit = rest_.subspan(length_size, size);
        rest_ = rest_.subspan(length_size + size);
        if (size <= codec->unit_header || is_upper_layer(*codec, unit.data())) continue;
        const uint8_t kind = codec->set_kind(codec->unit_type(unit[0]));
        if (kind == recovery::no_set) continue;
        if (const auto number = set_number(type_, kind, unit)) return parameter_set{kind, *number, unit};
    }
    return std::nullopt;
}

} // namespace mediafiles::recorder
