// zncRuntimeSpec.hpp - the reader of a bundle's "config.json", section by section.
//
// Called by zncContainerLib through zncInitializeRuntimeSpec and zncDestroyRuntimeSpec; the rest is
// declared here for unit tests. Every reader takes the section's JSON item (null: absent) and
// returns a record that its destroyer frees, or null. All text points into the JSON tree. The
// values are validated by the container registry.
#ifndef ZNCRUNTIMESPEC_HPP
#define ZNCRUNTIMESPEC_HPP

#include "zncOwned.hpp"
#include "zncontainer.h"

// The member names of "hooks", by hook kind.
extern const char* const runtimeHookName[RUNTIME_HOOK_KINDS];

cJSON* loadRuntimeSpec(const char* path);
char* runtimeSpecGetString(const cJSON* item, const char* name);
cJSON* runtimeSpecGetObject(const cJSON* item, const char* name);
bool runtimeSpecGetBoolean(const cJSON* item, const char* name);

runtimeSpecConfigProcess* initializeRuntimeSpecProcess(cJSON* item);
void destroyRuntimeSpecProcess(runtimeSpecConfigProcess* process);
runtimeSpecConfigZarnel* initializeRuntimeSpecZarnel(cJSON* item);
void destroyRuntimeSpecZarnel(runtimeSpecConfigZarnel* zarnel);
runtimeSpecConfigAnnotations* initializeRuntimeSpecAnnotations(cJSON* item);
void destroyRuntimeSpecAnnotations(runtimeSpecConfigAnnotations* annotations);
runtimeSpecConfigMounts* initializeRuntimeSpecMounts(cJSON* item);
void destroyRuntimeSpecMounts(runtimeSpecConfigMounts* mounts);
runtimeSpecConfigRoot* initializeRuntimeSpecRoot(cJSON* item);
void destroyRuntimeSpecRoot(runtimeSpecConfigRoot* root);

// A mount's options as a NULL-terminated list; null if there are none or if out of memory.
char** getMountsOption(const cJSON* mountItem);

void initializeRuntimeSpecHooks(cJSON* hooksObject, runtimeSpecConfigHook* hooks[]);
void destroyRuntimeSpecHooks(runtimeSpecConfigHook* hooks[]);
runtimeSpecConfigHook* initializeRuntimeSpecHook(cJSON* hooksObject, int kind);
void destroyRuntimeSpecHook(runtimeSpecConfigHook* hook);
runtimeHookNode* initializeRuntimeHookNode(const cJSON* item);
void destroyRuntimeHookNode(runtimeHookNode* node);

namespace znc {

using TextList = MallocPtr<char*[]>;

// The strings of `array` (null for an element that is not a string), followed by NULL. Null if out
// of memory.
TextList text_list(const cJSON* array) noexcept;

} // namespace znc

namespace znc {

// As zncInitializeRuntimeSpec, from a document that was read before.
runtimeSpecConfig* runtime_spec_of(CJsonPtr tree);

} // namespace znc

#endif
