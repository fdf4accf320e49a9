// A libjpeg source manager for the library's own decodes: it reads a FILE*
// like jpeg_stdio_src and hands libjpeg the same bytes, except the scans of
// a progressive file that the chosen DCT scale makes irrelevant.
//
// At a reduced scale libjpeg-turbo runs a smaller inverse DCT per block,
// which reads only some of the 64 coefficients. A progressive file sends
// the AC coefficients of a component in bands, one scan per band (and per
// refinement of it); a band that starts past the last zigzag position the
// component's inverse DCT reads cannot change an output byte, yet decoding
// it is most of the work: the luma AC scans are some 85% of a photo.
//
// Leaving a scan out must never change an output byte, so before the decode
// starts the filter walks the whole file once (markers and scan boundaries
// only, no entropy decoding) and arms itself only if all of this holds:
//   - the file is progressive Huffman and every segment and scan header is
//     one it understands (anything odd: it passes the file through whole);
//   - some scan would be left out at this scale;
//   - no scan it keeps refines coefficients whose earlier scan it leaves out
//     (a refinement reads its band's history: it would lose its place);
//   - libjpeg's block smoothing would not run on the whole file (it runs on
//     files whose coefficients 1..9 are not all complete, such as truncated
//     ones; it estimates coefficients from neighbouring blocks, so with
//     scans missing it would produce other pictures). Armed, the decode runs
//     with smoothing off, which for a file that passes this test changes
//     nothing.
// Baseline files, arithmetic coding and scales where every coefficient
// counts pass through untouched.
#include <cstring>

#include <jerror.h>

#include "pipeline/pipeline.h"

namespace {

// Last zigzag position libjpeg-turbo 2.1's inverse DCT reads at each scaled
// block size (1..16), found by leaving out one coefficient at a time: 1 reads
// the DC alone; 3, 5, 6 and 7 the top-left s x s corner; the reduced 2 and 4
// (from jidctred) read rows and columns 0, 1, 3, 5, 7 and 0..3, 5..7, so they
// need coefficient 63; 8 and up read all.
constexpr uint8_t kLastNeeded[17] = {63, 0, 63, 12, 63, 39, 51, 59, 63,
                                     63, 63, 63, 63, 63, 63, 63, 63};

constexpr int kMaxComps = 4;          // more components: passed through whole
constexpr size_t kBufSize = 65536;    // bytes per read, twice: stream and walk
constexpr int kSavedCoefs = 10;       // coefficients 0..9 decide smoothing
constexpr JOCTET kFakeEoi[2] = {0xFF, JPEG_EOI};

enum : uint8_t { kMarkers, kSegment, kEntropy, kPassRest, kDone };
enum : uint8_t { kPass, kDrop, kMore, kHold };

// Where the walk through the file stands, and what it has learnt. Plain
// data: the dry walk runs on a copy.
struct scan_parser {
    uint8_t mode;
    uint8_t drop_scan;     // the current scan's data are left out
    uint8_t saw_soi;
    uint8_t saw_sof;
    uint8_t progressive;   // SOF2 with 1..4 components
    uint8_t odd;           // met what it does not understand (or a conflict)
    uint8_t ncomp;
    uint8_t ids[kMaxComps];
    uint8_t limit[kMaxComps];  // last position needed; 63 = all (unarmed)
    int8_t bits[kMaxComps][kSavedCoefs];  // as libjpeg's coef_bits, all scans
    uint64_t passed[kMaxComps];   // coefficients some kept scan carries
    uint64_t dropped[kMaxComps];  // coefficients some left-out scan carries
    uint32_t segment_left;
    uint32_t dropped_scans;
};

struct piece {
    size_t n;
    uint8_t act;
};

void parser_reset(scan_parser *p)
{
    std::memset(p, 0, sizeof *p);
    p->mode = kMarkers;
    std::memset(p->limit, 63, sizeof p->limit);
    std::memset(p->bits, -1, sizeof p->bits);
}

// Gives up on the file: the rest passes as it is.
piece give_up(scan_parser *p, size_t avail)
{
    p->odd = 1;
    p->mode = kPassRest;
    return {avail, kPass};
}

uint64_t band_mask(int ss, int se)
{
    const uint64_t upto = se >= 63 ? ~uint64_t(0) : (uint64_t(1) << (se + 1)) - 1;
    return upto & ~((uint64_t(1) << ss) - 1);
}

bool is_sof(int c)
{
    return c >= 0xC0 && c <= 0xCF && c != 0xC4 && c != 0xC8 && c != 0xCC;
}

// Marker segments libjpeg reads between scans: DHT, DAC, DQT, DNL, DRI,
// APPn, COM. Others it refuses; so do we.
bool is_plain_segment(int c)
{
    return c == 0xC4 || c == 0xCC || c == 0xDB || c == 0xDC || c == 0xDD ||
           (c >= 0xE0 && c <= 0xEF) || c == 0xFE;
}

// A frame header: only progressive Huffman with up to four components is
// ours. `p` holds the whole segment (len + 2 bytes, len checked).
piece frame_header(scan_parser *s, const JOCTET *p, size_t avail, size_t len)
{
    if (s->saw_sof || len < 8)
        return give_up(s, avail);
    s->saw_sof = 1;
    const int nf = p[9];
    if (p[1] != 0xC2 || nf < 1 || nf > kMaxComps || len != size_t(8 + 3 * nf)) {
        s->mode = kPassRest;  // not ours: nothing in it is left out
        return {avail, kPass};
    }
    s->progressive = 1;
    s->ncomp = uint8_t(nf);
    for (int i = 0; i < nf; ++i)
        s->ids[i] = p[10 + 3 * i];
    return {len + 2, kPass};
}

// A scan header, whole in `p`. Checks it as libjpeg would (a header libjpeg
// refuses is passed on for it to refuse), tracks the coefficient precision
// every scan leaves, and decides.
piece scan_header(scan_parser *s, const JOCTET *p, size_t avail, size_t len)
{
    if (len < 8)
        return give_up(s, avail);
    const int n = p[4];
    if (!s->progressive || n < 1 || n > kMaxComps || len != size_t(6 + 2 * n))
        return give_up(s, avail);
    int comps[kMaxComps];
    for (int i = 0; i < n; ++i) {
        comps[i] = -1;
        for (int c = 0; c < s->ncomp; ++c)
            if (s->ids[c] == p[5 + 2 * i])
                comps[i] = c;
        for (int j = 0; j < i; ++j)
            if (comps[j] == comps[i])
                comps[i] = -1;
        if (comps[i] < 0)
            return give_up(s, avail);
    }
    const int ss = p[5 + 2 * n], se = p[6 + 2 * n];
    const int ah = p[7 + 2 * n] >> 4, al = p[7 + 2 * n] & 15;
    const bool bad = ss == 0 ? se != 0
                             : ss > se || se > 63 || n != 1 || (p[6] & 15) >= 4;
    if (bad || (ah != 0 && al != ah - 1) || al > 13)
        return give_up(s, avail);

    const uint64_t band = band_mask(ss, se);
    bool drop = false;
    if (ss > 0) {
        const int c = comps[0];
        // Its DC has come (so its quantisation table is latched by a kept
        // scan), and no kept scan holds part of this band.
        drop = ss > s->limit[c] && s->bits[c][0] >= 0 && !(s->passed[c] & band);
        if (!drop && ah != 0 && (s->dropped[c] & band))
            s->odd = 1;  // a kept refinement of a left-out band: no filter
    }
    for (int i = 0; i < n; ++i) {
        const int c = comps[i];
        for (int k = ss; k <= se && k < kSavedCoefs; ++k)
            s->bits[c][k] = int8_t(al);
        if (drop)
            s->dropped[c] |= band;
        else
            s->passed[c] |= band;
    }
    s->dropped_scans += drop;
    s->drop_scan = drop;
    s->mode = kEntropy;
    return {len + 2, drop ? kDrop : kPass};
}

// Classifies the bytes at `p`: how many from the start share one fate, or
// kMore when it must see more to know (never at the end of the file), or
// kHold at a scan header when `hold` asks for a fresh run first.
piece parse_step(scan_parser *s, const JOCTET *p, size_t avail, bool eof, bool hold)
{
    for (;;) {
        switch (s->mode) {
        case kPassRest:
        case kDone:
            return {avail, kPass};
        case kSegment: {
            const size_t n = avail < s->segment_left ? avail : s->segment_left;
            s->segment_left -= uint32_t(n);
            if (s->segment_left == 0)
                s->mode = kMarkers;
            return {n, kPass};
        }
        case kEntropy: {
            const uint8_t act = s->drop_scan ? kDrop : kPass;
            const auto *ff = static_cast<const JOCTET *>(std::memchr(p, 0xFF, avail));
            if (!ff)
                return {avail, act};
            if (ff != p)
                return {size_t(ff - p), act};
            if (avail < 2)
                return eof ? piece{avail, act} : piece{0, kMore};
            const int c = p[1];
            if (c == 0x00 || (c >= 0xD0 && c <= 0xD7))  // stuffed byte, restart
                return {2, act};
            if (c == 0xFF)  // fill byte before a marker or a stuffed 0xFF
                return {1, act};
            if (c < 0xC0)  // libjpeg may resynchronise past this: not ours
                return give_up(s, avail);
            s->mode = kMarkers;  // the scan ends at this marker
            continue;
        }
        case kMarkers:
        default:
            break;
        }

        if (s->saw_soi && p[0] != 0xFF) {  // stray bytes libjpeg skips
            const auto *ff = static_cast<const JOCTET *>(std::memchr(p, 0xFF, avail));
            return {ff ? size_t(ff - p) : avail, kPass};
        }
        if (avail < 2)
            return eof ? give_up(s, avail) : piece{0, kMore};
        const int c = p[1];
        if (!s->saw_soi) {
            if (p[0] != 0xFF || c != 0xD8)
                return give_up(s, avail);
            s->saw_soi = 1;
            return {2, kPass};
        }
        if (c == 0xFF)
            return {1, kPass};
        if (c == 0x00 || c == 0x01 || (c >= 0xD0 && c <= 0xD7))
            return {2, kPass};  // libjpeg skips these between segments
        if (c == JPEG_EOI) {
            s->mode = kDone;
            return {2, kPass};
        }
        if (c == 0xDA && hold)
            return {0, kHold};
        if (!(c == 0xDA || is_sof(c) || is_plain_segment(c)))
            return give_up(s, avail);
        if (avail < 4)
            return eof ? give_up(s, avail) : piece{0, kMore};
        const size_t len = size_t(p[2]) << 8 | p[3];
        if (len < 2)
            return give_up(s, avail);
        if (c == 0xDA || is_sof(c)) {
            // Scan and frame headers are read whole; longer than any we
            // understand, they are not ours.
            if (len > 20 && c == 0xDA)
                return give_up(s, avail);
            if (len > 20) {  // more than four components: not ours
                if (s->saw_sof)
                    return give_up(s, avail);
                s->mode = kPassRest;
                return {avail, kPass};
            }
            if (avail < len + 2)
                return eof ? give_up(s, avail) : piece{0, kMore};
            return c == 0xDA ? scan_header(s, p, avail, len)
                             : frame_header(s, p, avail, len);
        }
        s->segment_left = uint32_t(len - 2);
        s->mode = s->segment_left ? kSegment : kMarkers;
        return {4, kPass};
    }
}

struct scan_source {
    jpeg_source_mgr pub;
    FILE *file;
    off64_t start;    // offset of the stream's first byte; -1: cannot seek
    off64_t read_to;  // offset of the next byte to read
    JOCTET *buf;      // bytes read; [pos, len) not yet handed on or left out
    JOCTET *walk;     // the dry walk's own buffer
    size_t pos;
    size_t len;
    scan_parser parser;
    boolean start_of_file;
    bool eof;
};

scan_source *source_of(j_decompress_ptr cinfo);

void init_source(j_decompress_ptr cinfo)
{
    source_of(cinfo)->start_of_file = TRUE;
}

void term_source(j_decompress_ptr) {}

// Moves what is left to the front and reads behind it. False at the end.
bool read_more(scan_source *src)
{
    if (src->pos > 0) {
        std::memmove(src->buf, src->buf + src->pos, src->len - src->pos);
        src->len -= src->pos;
        src->pos = 0;
    }
    if (src->eof || src->len == kBufSize)
        return false;
    const size_t got = std::fread(src->buf + src->len, 1, kBufSize - src->len, src->file);
    src->len += got;
    src->read_to += off64_t(got);
    if (got == 0)
        src->eof = true;
    else
        src->start_of_file = FALSE;
    return got > 0;
}

// Hands libjpeg the next run of kept bytes, skipping the left-out ones. A
// run ends before each scan header, so that every scan is decided when
// libjpeg asks for it, after the scale is set.
boolean fill_input_buffer(j_decompress_ptr cinfo)
{
    scan_source *src = source_of(cinfo);
    size_t run = 0;
    size_t run_start = src->pos;
    for (;;) {
        if (src->pos == src->len) {
            if (run)
                break;
            if (!read_more(src)) {
                // As jpeg_stdio_src: an empty file is fatal, a short one
                // ends in an inserted EOI.
                if (src->start_of_file)
                    ERREXIT(cinfo, JERR_INPUT_EMPTY);
                WARNMS(cinfo, JWRN_JPEG_EOF);
                src->pub.next_input_byte = kFakeEoi;
                src->pub.bytes_in_buffer = sizeof kFakeEoi;
                return TRUE;
            }
            run_start = src->pos;
            continue;
        }
        const piece pc = parse_step(&src->parser, src->buf + src->pos,
                                    src->len - src->pos, src->eof, run > 0);
        if (pc.act == kHold || (pc.act != kPass && run))
            break;
        if (pc.act == kMore) {
            read_more(src);  // at the end, eof makes the next step decide
            run_start = src->pos;
            continue;
        }
        src->pos += pc.n;
        if (pc.act == kPass)
            run += pc.n;
        else
            run_start = src->pos;
    }
    src->pub.next_input_byte = src->buf + run_start;
    src->pub.bytes_in_buffer = run;
    return TRUE;
}

void skip_input_data(j_decompress_ptr cinfo, long num_bytes)
{
    jpeg_source_mgr *pub = cinfo->src;
    if (num_bytes <= 0)
        return;
    while (size_t(num_bytes) > pub->bytes_in_buffer) {
        num_bytes -= long(pub->bytes_in_buffer);
        fill_input_buffer(cinfo);
    }
    pub->next_input_byte += num_bytes;
    pub->bytes_in_buffer -= size_t(num_bytes);
}

scan_source *source_of(j_decompress_ptr cinfo)
{
    return reinterpret_cast<scan_source *>(cinfo->src);
}

bool is_ours(j_decompress_ptr cinfo)
{
    return cinfo->src && cinfo->src->init_source == init_source;
}

// Walks the whole file from its start with `walker` (armed with the limits),
// without entropy decoding, then puts the stream back where it was. False if
// the file cannot be read again.
bool dry_walk(scan_source *src, scan_parser *walker)
{
    if (src->start < 0 || fseeko64(src->file, src->start, SEEK_SET) != 0)
        return false;
    size_t pos = 0, len = 0;
    bool eof = false, ok = true;
    while (walker->mode != kDone && walker->mode != kPassRest) {
        piece pc{0, kMore};
        if (pos < len)
            pc = parse_step(walker, src->walk + pos, len - pos, eof, false);
        else if (eof)
            break;
        if (pc.act != kMore) {
            pos += pc.n;
            continue;
        }
        // Everything read is walked, or a header runs past it: read behind
        // what is left (at most a header's few bytes).
        std::memmove(src->walk, src->walk + pos, len - pos);
        len -= pos;
        pos = 0;
        const size_t got = std::fread(src->walk + len, 1, kBufSize - len, src->file);
        len += got;
        if (got == 0) {
            eof = true;
            ok = !std::ferror(src->file);
        }
    }
    // A file cut inside scan data or between segments is decoded as libjpeg
    // does with every file; cut inside a segment, libjpeg reads its inserted
    // EOI as part of it, and that is not ours.
    if (walker->mode == kSegment)
        walker->odd = 1;
    std::clearerr(src->file);
    return fseeko64(src->file, src->read_to, SEEK_SET) == 0 && ok;
}

// Would libjpeg smooth the whole file? As its smoothing_ok: every component
// has its DC, and some coefficient among 1..9 is not complete.
bool would_smooth(const scan_parser *p)
{
    bool useful = false;
    for (int c = 0; c < p->ncomp; ++c) {
        if (p->bits[c][0] < 0)
            return false;
        for (int k = 1; k < kSavedCoefs; ++k)
            useful = useful || p->bits[c][k] != 0;
    }
    return useful;
}

}  // namespace

void image_scan_source(j_decompress_ptr cinfo, FILE *file)
{
    // Like jpeg_stdio_src, the record lives in the permanent pool and is
    // reused by later calls; a source of another kind (a host's) is left
    // in the pool and replaced.
    if (!is_ours(cinfo)) {
        auto *src = static_cast<scan_source *>((*cinfo->mem->alloc_small)(
            reinterpret_cast<j_common_ptr>(cinfo), JPOOL_PERMANENT, sizeof(scan_source)));
        src->buf = static_cast<JOCTET *>((*cinfo->mem->alloc_small)(
            reinterpret_cast<j_common_ptr>(cinfo), JPOOL_PERMANENT, 2 * kBufSize));
        src->walk = src->buf + kBufSize;
        cinfo->src = &src->pub;
    }
    scan_source *src = source_of(cinfo);
    src->pub.init_source = init_source;
    src->pub.fill_input_buffer = fill_input_buffer;
    src->pub.skip_input_data = skip_input_data;
    src->pub.resync_to_restart = jpeg_resync_to_restart;
    src->pub.term_source = term_source;
    src->pub.next_input_byte = nullptr;
    src->pub.bytes_in_buffer = 0;
    src->file = file;
    src->start = ftello64(file);
    src->read_to = src->start;
    src->pos = src->len = 0;
    src->eof = false;
    src->start_of_file = TRUE;
    parser_reset(&src->parser);
}

void image_scan_source_arm(j_decompress_ptr cinfo)
{
    if (!is_ours(cinfo))
        return;
    scan_source *src = source_of(cinfo);
    scan_parser *p = &src->parser;
    bool armed = false;
    if (p->progressive && !p->odd && p->mode != kPassRest && cinfo->progressive_mode &&
        !cinfo->arith_code && !cinfo->buffered_image && !cinfo->raw_data_out &&
        cinfo->num_components == p->ncomp) {
        // The scaled block sizes libjpeg will choose in jpeg_start_decompress,
        // which calls this same function with these same parameters.
        jpeg_calc_output_dimensions(cinfo);
        uint8_t limit[kMaxComps];
        bool any = false, same = true;
        for (int c = 0; c < p->ncomp; ++c) {
            const jpeg_component_info *comp = &cinfo->comp_info[c];
            const int size = comp->DCT_scaled_size;
            limit[c] = size >= 1 && size <= 16 ? kLastNeeded[size] : 63;
            any = any || limit[c] < 63;
            same = same && comp->component_id == p->ids[c];
        }
        if (any && same) {
            scan_parser walker;
            parser_reset(&walker);
            std::memcpy(walker.limit, limit, sizeof limit);
            if (dry_walk(src, &walker) && !walker.odd && walker.progressive &&
                walker.dropped_scans > 0 &&
                !(cinfo->do_block_smoothing && would_smooth(&walker))) {
                std::memcpy(p->limit, limit, sizeof limit);
                cinfo->do_block_smoothing = FALSE;
                armed = true;
            }
        }
    }
    if (!armed)
        p->mode = kPassRest;  // the rest goes through as it is
}

uint32_t image_scan_source_dropped(j_decompress_ptr cinfo)
{
    return is_ours(cinfo) ? source_of(cinfo)->parser.dropped_scans : 0;
}
