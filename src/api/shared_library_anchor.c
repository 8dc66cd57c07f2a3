/* The shared library is the whole internal archive; a target needs one source of its own. */
typedef int pelmor_shared_library_anchor;
