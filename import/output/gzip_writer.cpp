#include "gzip_writer.hpp"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <zlib.h>

#ifdef ZNC_DEFLATE_ISAL
#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>
#endif

namespace zncimport {
namespace {

using Bytes = std::vector<unsigned char>;
using View = std::span<const unsigned char>;

// Must not change: the compressed bytes, and so the digests, depend on it.
constexpr std::size_t kPiece = std::size_t{1} << 20U;
constexpr std::size_t kDictionary = std::size_t{32} << 10U;
constexpr std::size_t kPiecesPerThread = 3;

// Compresses one piece at a time. Every piece but the last ends at a byte boundary without the
// final-block flag, so that the concatenated pieces form one deflate stream.
class Deflater : znc::NotCopied {
  public:
    virtual ~Deflater() = default;
    virtual void compress(View dictionary, View data, bool last, Bytes& out) = 0;
};

class ZlibDeflater : public Deflater {
  public:
    ZlibDeflater()
    {
        constexpr int kLevel = 6;
        constexpr int kRawWindow = -15; // raw deflate: no zlib header or trailer
        constexpr int kMemory = 8;
        if (::deflateInit2(&stream_, kLevel, Z_DEFLATED, kRawWindow, kMemory, Z_DEFAULT_STRATEGY) !=
            Z_OK)
            throw Failure("", "zlib cannot be initialized");
    }
    ~ZlibDeflater() override { ::deflateEnd(&stream_); }

    void compress(View dictionary, View data, bool last, Bytes& out) override
    {
        ::deflateReset(&stream_);
        if (!dictionary.empty())
            ::deflateSetDictionary(&stream_, dictionary.data(),
                                   static_cast<uInt>(dictionary.size()));
        // room for block headers and the flush, in addition to deflateBound()
        constexpr std::size_t kMarks = 64;
        out.resize(::deflateBound(&stream_, data.size()) + kMarks);
        stream_.next_in = const_cast<unsigned char*>(data.data()); // zlib only reads it
        stream_.avail_in = static_cast<uInt>(data.size());
        stream_.next_out = out.data();
        stream_.avail_out = static_cast<uInt>(out.size());
        const int status = ::deflate(&stream_, last ? Z_FINISH : Z_SYNC_FLUSH);
        if (status != (last ? Z_STREAM_END : Z_OK) || stream_.avail_in != 0 ||
            stream_.avail_out == 0)
            throw Failure("", "zlib did not compress a piece of the layer");
        out.resize(out.size() - stream_.avail_out);
    }

  private:
    z_stream stream_{};
};

#ifdef ZNC_DEFLATE_ISAL
class IsalDeflater : public Deflater {
  public:
    void compress(View dictionary, View data, bool last, Bytes& out) override
    {
        ::isal_deflate_init(&stream_);
        stream_.level = kLevel;
        stream_.level_buf = work_.data();
        stream_.level_buf_size = static_cast<std::uint32_t>(work_.size());
        stream_.flush = last ? NO_FLUSH : SYNC_FLUSH;
        stream_.end_of_stream = last ? 1 : 0;
        if (!dictionary.empty() &&
            ::isal_deflate_set_dict(&stream_, const_cast<unsigned char*>(dictionary.data()),
                                    static_cast<std::uint32_t>(dictionary.size())) != COMP_OK)
            throw Failure("", "ISA-L rejected its dictionary");
        // Incompressible data are stored in blocks of less than 64 KiB.
        out.resize(data.size() + data.size() / 8 + 4096);
        stream_.next_in = const_cast<unsigned char*>(data.data());
        stream_.avail_in = static_cast<std::uint32_t>(data.size());
        stream_.next_out = out.data();
        stream_.avail_out = static_cast<std::uint32_t>(out.size());
        if (::isal_deflate(&stream_) != COMP_OK || stream_.avail_in != 0 || stream_.avail_out == 0)
            throw Failure("", "ISA-L did not compress a piece of the layer");
        out.resize(out.size() - stream_.avail_out);
    }

  private:
    // The highest level, with the smaller buffer size: the deflate blocks are then as short as
    // those of zlib, and their codes fit the data better.
    static constexpr std::uint32_t kLevel = 3;
    isal_zstream stream_{};
    Bytes work_ = Bytes(ISAL_DEF_LVL3_SMALL);
};
#endif

std::unique_ptr<Deflater> make_deflater(Compressor compressor)
{
#ifdef ZNC_DEFLATE_ISAL
    if (compressor == Compressor::kIsal)
        return std::make_unique<IsalDeflater>();
#endif
    if (compressor != Compressor::kZlib)
        throw Failure("", "this build does not have the compressor", zncctl::kExitUsage);
    return std::make_unique<ZlibDeflater>();
}

std::uint32_t crc_of(View data)
{
#ifdef ZNC_DEFLATE_ISAL
    return ::crc32_gzip_refl(0, data.data(), data.size());
#else
    return static_cast<std::uint32_t>(::crc32_z(0, data.data(), data.size()));
#endif
}

struct Piece {
    Bytes plain; // the dictionary, followed by the data
    std::size_t dictionary = 0;
    bool last = false;

    Bytes packed;
    std::uint32_t crc = 0;
    std::exception_ptr error;
    bool begun = false;
    bool done = false;

    [[nodiscard]] View data() const { return View(plain).subspan(dictionary); }

    void compress(Deflater& deflater)
    {
        try {
            deflater.compress(View(plain).first(dictionary), data(), last, packed);
            crc = crc_of(data());
        } catch (...) {
            error = std::current_exception();
        }
    }
};
using PiecePtr = std::unique_ptr<Piece>;

} // namespace

struct GzipWriter::State : private znc::NotCopied {
    State(Compressor compressor, ByteSink to, unsigned threads)
        : sink(std::move(to)), own(make_deflater(compressor))
    {
        next_piece();
        start(compressor, threads); // must be last: nothing may throw while threads run
        most = kPiecesPerThread * std::max<std::size_t>(workers.size(), 1);
    }

    ~State()
    {
        {
            const std::lock_guard guard(lock);
            stop = true;
        }
        work.notify_all();
        for (std::thread& worker : workers)
            worker.join();
    }

    // If some or all threads cannot be started, compression is only slower.
    void start(Compressor compressor, unsigned threads)
    {
        if (threads == 0)
            threads = std::max(1U, std::thread::hardware_concurrency());
        workers.reserve(threads);
        try {
            while (workers.size() < threads)
                workers.emplace_back([this, compressor] { work_on(compressor); });
        } catch (const std::exception&) {
            return;
        }
    }

    void work_on(Compressor compressor)
    {
        std::unique_ptr<Deflater> deflater;
        std::unique_lock guard(lock);
        for (;;) {
            Piece* piece = nullptr;
            work.wait(guard, [&] { return stop || (piece = waiting_piece()) != nullptr; });
            if (stop)
                return;
            piece->begun = true;
            guard.unlock();
            try {
                if (deflater == nullptr)
                    deflater = make_deflater(compressor);
                piece->compress(*deflater);
            } catch (...) {
                piece->error = std::current_exception();
            }
            guard.lock();
            piece->done = true;
            finished.notify_one();
        }
    }

    Piece* waiting_piece()
    {
        const auto found = std::find_if(under_way.begin(), under_way.end(),
                                        [](const PiecePtr& piece) { return !piece->begun; });
        return found != under_way.end() ? found->get() : nullptr;
    }

    // Begins a new piece, with the end of the previous one as its dictionary.
    void next_piece()
    {
        PiecePtr fresh = std::make_unique<Piece>();
        if (!spare.empty()) {
            fresh->plain = std::move(spare.back().plain);
            fresh->packed = std::move(spare.back().packed);
            spare.pop_back();
        }
        fresh->plain.clear();
        fresh->plain.reserve(kDictionary + kPiece);
        if (filling != nullptr) {
            const View all(filling->plain);
            const View end = all.last(std::min(kDictionary, all.size()));
            fresh->plain.assign(end.begin(), end.end());
            fresh->dictionary = end.size();
        }
        std::swap(filling, fresh);
        if (fresh != nullptr)
            submit(std::move(fresh));
    }

    void submit(PiecePtr piece)
    {
        {
            const std::lock_guard guard(lock);
            under_way.push_back(std::move(piece));
        }
        work.notify_one();
        while (under_way.size() >= most)
            hand_over();
    }

    // Waits until the oldest piece is compressed and passes it to the sink. Only this thread
    // changes the queue, so it may read the queue without the lock.
    void hand_over()
    {
        Piece& oldest = *under_way.front();
        if (workers.empty())
            oldest.compress(*own);
        std::unique_lock guard(lock);
        finished.wait(guard, [&] { return oldest.done || workers.empty(); });
        PiecePtr piece = std::move(under_way.front());
        under_way.pop_front();
        guard.unlock();
        if (piece->error)
            std::rethrow_exception(piece->error);
        const View data = piece->data();
        crc = static_cast<std::uint32_t>(
            ::crc32_combine(crc, piece->crc, static_cast<z_off_t>(data.size())));
        plain += data.size();
        sink(std::as_bytes(std::span(piece->packed)));
        spare.push_back(std::move(*piece));
    }

    ByteSink sink;
    std::unique_ptr<Deflater> own; // used if no thread could be started
    std::size_t most = 0;          // maximum number of pieces in the queue
    PiecePtr filling;
    std::vector<Piece> spare; // finished pieces, whose buffers are reused
    std::uint32_t crc = 0;
    std::uint64_t plain = 0;
    bool begun = false;

    std::mutex lock; // protects the queue and the flags of its pieces
    std::condition_variable work;
    std::condition_variable finished;
    std::deque<PiecePtr> under_way; // in the order of the data
    bool stop = false;
    std::vector<std::thread> workers;
};

namespace {

// The gzip header: deflate, no flags, time 0, no extra flags, operating system unknown.
constexpr std::array<unsigned char, 10> kHeader = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 255};

void put_little_endian(std::span<unsigned char> out, std::uint32_t number)
{
    for (unsigned char& byte : out) {
        byte = static_cast<unsigned char>(number & 0xffU);
        number >>= 8U;
    }
}

} // namespace

GzipWriter::GzipWriter(Compressor compressor, ByteSink sink, unsigned threads)
    : state_(std::make_unique<State>(compressor, std::move(sink), threads))
{
}

GzipWriter::~GzipWriter() = default;

void GzipWriter::write(std::span<const std::byte> bytes)
{
    State& state = *state_;
    if (!state.begun)
        state.sink(std::as_bytes(std::span(kHeader)));
    state.begun = true;
    while (!bytes.empty()) {
        Bytes& plain = state.filling->plain;
        const std::size_t room = kPiece - (plain.size() - state.filling->dictionary);
        const std::span part = bytes.first(std::min(room, bytes.size()));
        const auto* first = reinterpret_cast<const unsigned char*>(part.data());
        plain.insert(plain.end(), first, first + part.size());
        bytes = bytes.subspan(part.size());
        if (part.size() == room)
            state.next_piece();
    }
}

void GzipWriter::finish()
{
    write({}); // writes the header if write() was never called
    State& state = *state_;
    state.filling->last = true;
    state.submit(std::move(state.filling));
    while (!state.under_way.empty())
        state.hand_over();
    std::array<unsigned char, 8> trailer{};
    put_little_endian(std::span(trailer).first(4), state.crc);
    put_little_endian(std::span(trailer).last(4), static_cast<std::uint32_t>(state.plain));
    state.sink(std::as_bytes(std::span(trailer)));
}

bool has_compressor(Compressor compressor)
{
#ifdef ZNC_DEFLATE_ISAL
    static_cast<void>(compressor);
    return true;
#else
    return compressor == Compressor::kZlib;
#endif
}

} // namespace zncimport
