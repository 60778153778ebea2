#include "impl/zstd_files.h"

#include "recording/files.h"

#include <zstd.h>

#include <utility>
#include <vector>

namespace rtls::recording {

static constexpr int compression_level = 3;
static constexpr size_t place_step = 4096; // of what is read at once: so exactly the place of damage is known

namespace {

struct free_stream {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

class zstd_source final : public byte_source {
public:
    zstd_source(std::unique_ptr<byte_source> from, std::string path)
        : m_from(std::move(from)), m_path(std::move(path)), m_context(ZSTD_createDCtx()), m_packed(place_step)
    {
        if (!m_context)
            throw std::bad_alloc();
        // What a writer's usual window takes; a file may ask for gigabytes.
        ZSTD_DCtx_setParameter(m_context.get(), ZSTD_d_windowLogMax, 27);
    }

    size_t read(bytes_span room) override
    {
        ZSTD_outBuffer out{room.data(), room.size(), 0};
        while (out.pos < out.size) {
            const size_t before = out.pos;
            unpack(out);
            if (out.pos == before && m_in.pos == m_in.size && !refill())
                break;
        }
        return out.pos;
    }

private:
    bool refill()
    {
        m_before += m_in.size;
        m_in = {m_packed.data(), m_from->read(m_packed), 0};
        return m_in.size > 0;
    }
    void unpack(ZSTD_outBuffer& out)
    {
        const size_t result = ZSTD_decompressStream(m_context.get(), &out, &m_in);
        if (ZSTD_isError(result))
            throw file_error("cannot decompress " + m_path + " behind byte " +
                             std::to_string(m_before + m_in.pos) + ": " + ZSTD_getErrorName(result));
    }

    std::unique_ptr<byte_source> m_from;
    std::string m_path;
    std::unique_ptr<ZSTD_DCtx, free_stream> m_context;
    std::vector<uint8_t> m_packed;
    ZSTD_inBuffer m_in{nullptr, 0, 0};
    uint64_t m_before = 0; // bytes of the file in front of these
};

class zstd_sink final : public byte_sink {
public:
    explicit zstd_sink(std::unique_ptr<byte_sink> to)
        : m_to(std::move(to)), m_context(ZSTD_createCCtx()), m_packed(ZSTD_CStreamOutSize())
    {
        if (!m_context)
            throw std::bad_alloc();
        ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_compressionLevel, compression_level);
        ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_checksumFlag, 1);
    }

    void write(bytes_view bytes) override { pack(bytes, ZSTD_e_continue); }
    void flush() override
    {
        pack({}, ZSTD_e_flush);
        m_to->flush();
    }
    void close() override
    {
        pack({}, ZSTD_e_end);
        m_to->close();
    }
    uint64_t size() const override { return m_to->size(); }

private:
    void pack(bytes_view bytes, ZSTD_EndDirective until)
    {
        ZSTD_inBuffer in{bytes.data(), bytes.size(), 0};
        for (bool is_done = false; !is_done;) {
            ZSTD_outBuffer out{m_packed.data(), m_packed.size(), 0};
            const size_t left = ZSTD_compressStream2(m_context.get(), &out, &in, until);
            if (ZSTD_isError(left))
                throw file_error(std::string{"cannot compress: "} + ZSTD_getErrorName(left));
            m_to->write(bytes_view{m_packed}.first(out.pos));
            is_done = until == ZSTD_e_continue ? in.pos == in.size : left == 0;
        }
    }

    std::unique_ptr<byte_sink> m_to;
    std::unique_ptr<ZSTD_CCtx, free_stream> m_context;
    std::vector<uint8_t> m_packed;
};

} // namespace

void require_compression() {}

std::unique_ptr<byte_source> decompressed(std::unique_ptr<byte_source> from, const std::string& path)
{
    return std::make_unique<zstd_source>(std::move(from), path);
}

std::unique_ptr<byte_sink> compressed(std::unique_ptr<byte_sink> to)
{
    return std::make_unique<zstd_sink>(std::move(to));
}

} // namespace rtls::recording
