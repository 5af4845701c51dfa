// SPDX-License-Identifier: MIT
//
// Checksums of memory and of buffers, over the plain-register sums of data/checksum_words.h and, for long
// runs where the build allows vector registers, over those of data/checksum_wide.cc.

#include "data/checksum.h"

#include "data/checksum_words.h"
#include "data/zarn_data.h"

using checksum_words::fold;
using checksum_words::sum_run;
using checksum_words::swap_halves;

namespace {

inline uint32_t chksum_plain(const void *data, uint32_t length) {
    return fold(sum_run<false>((const uint8_t *)data, nullptr, length));
}

inline uint32_t cpysum_plain(void *dest, const void *src, uint32_t length) {
    return fold(sum_run<true>((const uint8_t *)src, (uint8_t *)dest, length));
}

#if ZARN_WIDE_CHECKSUMS
// Below this many bytes the lanes of the vectors cost more to bring together than they save.
constexpr uint32_t kWideLength = 64 * sizeof(checksum_words::word);

// Null until somebody has asked the processor, which takes long. Atomic: two that ask at once find the same.
const checksum_form *gWidest;

const checksum_form *find_widest() {
    uint32_t count;
    const checksum_form *forms = get_wide_checksums(&count);
    const checksum_form *widest = count == 0 ? &kPlainChecksum : &forms[count - 1];
    __atomic_store_n(&gWidest, widest, __ATOMIC_RELAXED);
    return widest;
}

inline const checksum_form *widest_form() {
    const checksum_form *widest = __atomic_load_n(&gWidest, __ATOMIC_RELAXED);
    return widest != nullptr ? widest : find_widest();
}
#endif

// The checksum of a range that lies inside of `data`; with `kCopy` its bytes go to `dest` on the way.
template <bool kCopy>
uint32_t sum_pieces(zarn_data_t *data, uint32_t offset, uint8_t *dest, uint32_t length) {
    data_place place = locate_data(data, offset);
    uint32_t skipped = place.distance;
    uint32_t total = 0;
    uint32_t done = 0;
    for (const mem_node *node = *place.link; node != nullptr && done < length; node = node->next) {
        const uint8_t *piece = (const uint8_t *)node->base + skipped;
        uint32_t rest = length - done;
        uint32_t size = node->len - skipped < rest ? node->len - skipped : rest;
        uint32_t sum = kCopy ? cpysum(dest + done, piece, size) : chksum(piece, size);
        // Pairs are counted from the start of the range, so an odd distance puts every byte of the piece in
        // its other half.
        if (done & 1) sum = swap_halves(sum);
        total = fold(total + sum);
        done += size;
        skipped = 0;
    }
    return ~total & 0xffff;
}

}  // namespace

const checksum_form kPlainChecksum = {"plain", chksum_plain, cpysum_plain};

uint32_t chksum(const void *data, uint32_t length) {
#if ZARN_WIDE_CHECKSUMS
    if (length >= kWideLength) return widest_form()->sum(data, length);
#endif
    return chksum_plain(data, length);
}

uint32_t cpysum(void *dest, const void *src, uint32_t length) {
#if ZARN_WIDE_CHECKSUMS
    if (length >= kWideLength) return widest_form()->copy(dest, src, length);
#endif
    return cpysum_plain(dest, src, length);
}

uint32_t get_zarn_checksum(const void *buf, uint32_t length, uint16_t seed) {
    uint32_t sum = (~chksum(buf, length) & 0xffff) + seed;
    if (sum > 0xffff) sum += 1;
    return sum & 0xffff;
}

uint32_t get_zarn_data_checksum(zarn_data_t *data, uint32_t offset, uint32_t length) {
    if (data->length == 0 || !data_range_is_valid(data, offset, length)) return 0;
    if (length == 0) return 0xffff;
    return sum_pieces<false>(data, offset, nullptr, length);
}

uint32_t copy_and_checksum_data(zarn_data_t *data, uint32_t offset, void *dest, uint32_t length) {
    if (data->length == 0 || !data_range_is_valid(data, offset, length)) return 0;
    bool whole = offset == 0 && length == data->length;
    if (whole && (data->flags & DATA_CHECKSUM_CACHED) != 0) return data->checksum;
    if (length == 0) return 0xffff;

    uint32_t checksum = sum_pieces<true>(data, offset, (uint8_t *)dest, length);
    if (whole) {
        data->checksum = (uint16_t)checksum;
        data->flags |= DATA_CHECKSUM_CACHED;
    }
    return checksum;
}
