/*
 * requirement.h - checks whether the system has what the platform needs. The checks have no side
 * effects.
 */
#ifndef ZARNEL_REQUIREMENT_H
#define ZARNEL_REQUIREMENT_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct znRequirement {
    const char* text;    /* what is required; constant */
    const char* without; /* consequence if it is missing; constant */
    BOOL needed;         /* FALSE: optional */
    BOOL met;
} znRequirement;

/* Get the requirement `index`, counted from 0. FALSE if there are no more. */
BOOL znRequirementGet(size_t index, znRequirement* requirement);

#ifdef __cplusplus
}
#endif
#endif
