// Part of every source of a cross build that has thread-local variables. Aligns the section of the
// descriptors of thread-local variables, which hold pointers: the compiler leaves that to the
// linker, and this linker leaves the section where it falls.
asm(".section __DATA,__thread_vars,thread_local_variables\n"
    ".p2align 3\n"
    ".text\n");
