// Marks the classes and free functions of the class interface as exported;
// everything else in libsealkeep is hidden.
#ifndef SEALKEEP_EXPORT_HPP
#define SEALKEEP_EXPORT_HPP

#define SEALKEEP_EXPORT __attribute__((visibility("default")))

#endif
