/* version.c - what the built library says of itself (strings libzncontainer.so.1 | grep znc:). */
extern const char zncLibraryIdent[];
__attribute__((used)) const char zncLibraryIdent[] = "znc: libzncontainer 1.0.0";
