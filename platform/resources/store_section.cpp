// The resource store of the program that this goes into, as a section that no loader maps: it costs
// nothing until it is read. OBJPROBE_RESOURCES is the path of the archive.
__asm__(
    ".pushsection .objprobe.res,\"\",@progbits\n"
    ".incbin \"" OBJPROBE_RESOURCES
    "\"\n"
    ".popsection\n");
