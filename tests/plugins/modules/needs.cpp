#include <qor/plugins/sio_plugin.h>

extern "C" int neededValue();

/// Tells which of the libraries of one name it was given.
QOR_SIO_EXPORT int qorDMFUNC(unsigned long, unsigned long, unsigned long, void*, void*) { return neededValue(); }
