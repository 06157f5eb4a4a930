// Flash images of the "tm" partition built from the byte format, for tests
// that start the daemon on a history it never wrote itself. The CRC is
// computed here the table way (non-reflected table, input bytes and result
// bit-reversed), apart from every other CRC of the tree.
//
//   kvard::test::flash::Image image;                 // 8 MiB, every byte 0xFF
//   image.PutMinute(0, Rec(t, t + 60, 0, 1000, 60)); // page 0 of the minute ring
//   image.PutHalfDay(255, Rec(...));                 // last page of the half-day ring
//   image.WriteTo(box);                              // before box.Start()
#ifndef KVARD_TESTS_SYSTEM_FLASH_IMAGE_H
#define KVARD_TESTS_SYSTEM_FLASH_IMAGE_H

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tests/system/harness.h"
#include "tests/system/meter_util.h"

namespace kvard::test::flash {

using meter::Record;

namespace detail {

constexpr uint32_t Reverse32(uint32_t v)
{
    uint32_t r = 0;
    for (int i = 0; i < 32; i++) r |= ((v >> i) & 1u) << (31 - i);
    return r;
}

constexpr uint8_t Reverse8(uint8_t v) { return uint8_t(Reverse32(v) >> 24); }

constexpr std::array<uint32_t, 256> MakeTable()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t c = i << 24;
        for (int step = 0; step < 8; step++) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : c << 1;
        table[i] = c;
    }
    return table;
}

inline constexpr std::array<uint32_t, 256> kTable = MakeTable();

}  // namespace detail

// CRC-32 of IEEE 802.3 (reflected in and out, initial and final 0xFFFFFFFF).
constexpr uint32_t Crc32(std::string_view bytes)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (char c : bytes) crc = detail::kTable[(detail::Reverse8(uint8_t(c)) ^ (crc >> 24)) & 0xFF] ^ (crc << 8);
    return ~detail::Reverse32(crc);
}
static_assert(Crc32("123456789") == 0xCBF43926u, "CRC-32 check value");
static_assert(Crc32(std::string_view("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32)) ==
                  0x190A55ADu,
              "CRC of an all-zero record");

// Partition geometry and the ring layout that follows from it.
struct Geometry {
    uint32_t size = 8u << 20, eraseSize = 128u << 10, pageSize = 2048;

    uint32_t PagesPerBlock() const { return eraseSize / pageSize; }
    uint32_t Align(uint32_t pages) const { return (pages + PagesPerBlock() - 1) / PagesPerBlock() * PagesPerBlock(); }
    uint32_t MinRingStart() const { return 0; }
    uint32_t MinRingPages() const { return 3 * Align(720); }
    uint32_t HDayRingStart() const { return MinRingPages(); }
    uint32_t HDayRingPages() const { return 2 * Align(124); }
};

// The 32 bytes of a record, little-endian, FILLER in the last word.
inline std::string RecordBytes(const Record &r, uint32_t filler = 0)
{
    std::string b(32, '\0');
    auto put = [&b](size_t at, uint64_t v, size_t width) {
        for (size_t i = 0; i < width; i++) b[at + i] = char(uint8_t(v >> (8 * i)));
    };
    put(0, uint32_t(r.tStart), 4);
    put(4, uint32_t(r.tEnd), 4);
    put(8, r.tx, 8);
    put(16, r.rx, 8);
    put(24, uint32_t(r.tUsed), 4);
    put(28, filler, 4);
    return b;
}

class Image {
public:
    explicit Image(Geometry geometry = {}) : geometry_(geometry), bytes_(geometry.size, '\xFF') {}

    const Geometry &geometry() const { return geometry_; }
    const std::string &Bytes() const { return bytes_; }

    // A valid page: length 32, the two header filler bytes, the CRC, the record.
    void Put(uint32_t page, const Record &r, uint32_t filler = 0, uint16_t headerFiller = 0)
    {
        char *p = At(page);
        std::string body = RecordBytes(r, filler);
        uint32_t crc = Crc32(body);
        const uint8_t header[8] = {32,
                                   0,
                                   uint8_t(headerFiller),
                                   uint8_t(headerFiller >> 8),
                                   uint8_t(crc),
                                   uint8_t(crc >> 8),
                                   uint8_t(crc >> 16),
                                   uint8_t(crc >> 24)};
        memcpy(p, header, 8);
        memcpy(p + 8, body.data(), 32);
    }
    // Page INDEX counted from the start of the ring.
    void PutMinute(uint32_t index, const Record &r) { Put(Ring(geometry_.MinRingStart(), geometry_.MinRingPages(), index), r); }
    void PutHalfDay(uint32_t index, const Record &r)
    {
        Put(Ring(geometry_.HDayRingStart(), geometry_.HDayRingPages(), index), r);
    }
    // A page whose CRC does not match its record.
    void PutCorrupt(uint32_t page, const Record &r)
    {
        Put(page, r);
        At(page)[4] ^= 0x01;
    }

    // Installs the image as the box's partition. The page-state file goes:
    // libmtdsim derives it again from the content, so every page written here
    // counts as programmed and every 0xFF page as blank.
    void WriteTo(Sandbox &box) const
    {
        box.WriteFile("sandbox/mtd.img", bytes_);
        box.RemoveFile("sandbox/mtd.img.pages");
    }

private:
    char *At(uint32_t page)
    {
        if (uint64_t(page + 1) * geometry_.pageSize > bytes_.size())
            throw std::out_of_range("page " + std::to_string(page) + " lies past the partition");
        return &bytes_[size_t(page) * geometry_.pageSize];
    }
    static uint32_t Ring(uint32_t start, uint32_t pages, uint32_t index)
    {
        if (index >= pages) throw std::out_of_range("ring index " + std::to_string(index));
        return start + index;
    }

    Geometry geometry_;
    std::string bytes_;
};

}  // namespace kvard::test::flash

#endif
