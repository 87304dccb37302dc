/*
 * requirement.h - what the platform needs of the machine it runs on, asked in a way that changes
 * nothing.
 */
#ifndef ZARNEL_REQUIREMENT_H
#define ZARNEL_REQUIREMENT_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct znRequirement {
    const char* text;    /* what it is; constant */
    const char* without; /* what comes of it when it is missing; constant */
    BOOL needed;         /* FALSE: the platform can do without */
    BOOL met;
} znRequirement;

/* The requirement number `index`, from 0. FALSE when there are no more. */
BOOL znRequirementGet(size_t index, znRequirement* requirement);

#ifdef __cplusplus
}
#endif
#endif
