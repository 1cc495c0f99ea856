// The executable is not in a bundle of its own, so its information property list is a section of
// it. By the assembler, because not every linker takes a file for a section.
__asm__(
    ".section __TEXT,__info_plist,regular,no_dead_strip\n"
    ".incbin \"" TESSALOOM_INFO_PLIST
    "\"\n"
    ".text\n");
