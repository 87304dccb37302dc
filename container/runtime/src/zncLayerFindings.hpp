// zncLayerFindings.hpp - what the extractor loses of an archive, and what it refuses, on its way to
// a caller who asked for it (zncLayerCheck). Used by the extractor, which says it, also of members
// that it otherwise says nothing about.
#ifndef ZNCLAYERFINDINGS_HPP
#define ZNCLAYERFINDINGS_HPP

#include "zncTarLib.hpp"

namespace znc {

class LayerFindings {
  public:
    // `compression`: what the archive's first bytes are in other formats; null: nothing.
    LayerFindings(ZNC_LAYER_FUNC func, void* context, const char* compression) noexcept
        : func_(func), context_(context), compression_(compression)
    {
    }

    // What follows is about a member, or about the archive.
    void member(const header& h) noexcept;
    void archive() noexcept;
    void add(ZNC_LAYER_FINDING finding) noexcept;

  private:
    ZNC_LAYER_FUNC func_;
    void* context_;
    const char* compression_;
    unsigned members_ = 0; // 0, 1, or more
    char name_[sizeof(header::prefix) + sizeof(header::name) + 2] = {};
    char type_ = '\0';
    BOOL directory_ = FALSE;
    uint32_t mode_ = 0;
};

// To whoever listens to the run. All keep the task error number.
void begin_member(const MT_TAR_SOFT& ctrl, const header& h) noexcept;
void tell_of_member(const MT_TAR_SOFT& ctrl, ZNC_LAYER_FINDING finding) noexcept;
void tell_of_archive(const MT_TAR_SOFT& ctrl, ZNC_LAYER_FINDING finding) noexcept;

} // namespace znc

#endif
