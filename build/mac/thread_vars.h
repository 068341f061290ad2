// Part of every source of a cross build that has thread-local variables. Aligns the section of the
// descriptors of thread-local variables, which hold pointers: the compiler leaves that to the
// linker, and this linker leaves the section where it falls. Not for other sources: where the
// section is empty, the linker takes it for the exception tables after it, and no exception is
// caught.
asm(".section __DATA,__thread_vars,thread_local_variables\n"
    ".p2align 3\n"
    ".text\n");
