// What __builtin_cpu_supports reads. The compilers on a Mac bring it, the cross compiler does not.
// It stays zero, which describes a plain x86-64 processor, so that what is built here takes the
// portable roads.
extern "C" {

__attribute__((visibility("hidden"))) unsigned int __cpu_model[4] = {};
__attribute__((visibility("hidden"))) unsigned int __cpu_features2[3] = {};

}  // extern "C"
