// requirement.cpp - the daemon needs namespaces, which POSIX does not have.
#include "zarnel/requirement.h"

BOOL znRequirementGet(size_t index, znRequirement* requirement)
{
    if (index != 0)
        return FALSE;
    *requirement = {"namespaces", "no containers can be created", TRUE, FALSE};
    return TRUE;
}
