// The helper's information property list, where NSBundle's double looks for it. Stands for the one
// source that only a Mac's assembler takes.
__asm__(
    ".section info_plist,\"a\"\n"
    ".incbin \"" TESSALOOM_INFO_PLIST
    "\"\n"
    ".text\n");
