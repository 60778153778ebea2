#include "firmware/crc32.h"

#include "base/bytes.h"
#include "base/null_check.h"

#include <array>

namespace rtls {

// Eight tables of the reflected polynomial: table 0 is the bytewise one, table k advances a byte by
// k more zero bytes, so that eight bytes are folded in at once.
using crc_table_set = std::array<std::array<uint32_t, 256>, 8>;

static constexpr crc_table_set make_crc_tables()
{
    crc_table_set tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320U : crc >> 1;
        tables[0][i] = crc;
    }
    for (size_t k = 1; k < tables.size(); ++k)
        for (size_t i = 0; i < 256; ++i)
            tables[k][i] = tables[k - 1][i] >> 8 ^ tables[0][tables[k - 1][i] & 0xFF];
    return tables;
}

static constexpr crc_table_set crc_tables = make_crc_tables();

static constexpr uint32_t crc_fold_eight(uint32_t crc, bytes_view eight)
{
    const auto& t = crc_tables;
    const uint32_t low = load_le32(eight, 0) ^ crc;
    const uint32_t high = load_le32(eight, 4);
    return t[7][low & 0xFF] ^ t[6][low >> 8 & 0xFF] ^ t[5][low >> 16 & 0xFF] ^ t[4][low >> 24] ^
           t[3][high & 0xFF] ^ t[2][high >> 8 & 0xFF] ^ t[1][high >> 16 & 0xFF] ^ t[0][high >> 24];
}

uint32_t crc32_byte(const uint8_t* p, uint32_t bytelength)
{
    if (any_null(__func__, p))
        return 0;
    uint32_t crc = 0xFFFFFFFFU;
    bytes_view rest{p, bytelength};
    for (; rest.size() >= 8; rest = rest.subspan(8))
        crc = crc_fold_eight(crc, rest.first(8));
    for (const uint8_t b : rest)
        crc = crc >> 8 ^ crc_tables[0][(crc ^ b) & 0xFF];
    return ~crc;
}

} // namespace rtls
