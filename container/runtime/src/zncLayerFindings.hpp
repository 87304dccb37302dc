// zncLayerFindings.hpp - reports what the extractor drops from an archive or refuses in it to the
// callback of zncLayerCheck. The extractor calls these functions, also for members that it would
// otherwise skip silently.
#ifndef ZNCLAYERFINDINGS_HPP
#define ZNCLAYERFINDINGS_HPP

#include "zncTarLib.hpp"

namespace znc {

class LayerFindings {
  public:
    // `compression`: the name of the unsupported compression format that the first bytes of the
    // archive belong to, or null.
    LayerFindings(ZNC_LAYER_FUNC func, void* context, const char* compression) noexcept
        : func_(func), context_(context), compression_(compression)
    {
    }

    // The findings that follow are about the member `h`, or about the archive as a whole.
    void member(const header& h) noexcept;
    void archive() noexcept;
    void add(ZNC_LAYER_FINDING finding) noexcept;

  private:
    ZNC_LAYER_FUNC func_;
    void* context_;
    const char* compression_;
    unsigned members_ = 0; // members seen so far, counted up to 2
    char name_[sizeof(header::prefix) + sizeof(header::name) + 2] = {};
    char type_ = '\0';
    BOOL directory_ = FALSE;
    uint32_t mode_ = 0;
};

// Do nothing unless the run has `findings`. None of them changes errno.
void begin_member(const MT_TAR_SOFT& ctrl, const header& h) noexcept;
void tell_of_member(const MT_TAR_SOFT& ctrl, ZNC_LAYER_FINDING finding) noexcept;
void tell_of_archive(const MT_TAR_SOFT& ctrl, ZNC_LAYER_FINDING finding) noexcept;

} // namespace znc

#endif
