#ifndef KORVO_EXPORT_H
#define KORVO_EXPORT_H

// The library is built with hidden visibility; only what carries this macro is
// part of libKorvo.so's interface.
#define KORVO_EXPORT __attribute__((visibility("default")))

#endif
