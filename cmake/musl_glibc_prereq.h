/* Forced into every unit of a musl build (cmake/musl.cmake): libstdc++'s
   configuration is glibc's. It asks for glibc's version, where musl stands
   for a current one (gets() undeclared, isinf/isnan only as C99 has them),
   and names the locale handle by glibc's name. */
#define __GLIBC_PREREQ(major, minor) 1
#include <locale.h>
typedef locale_t __locale_t;
