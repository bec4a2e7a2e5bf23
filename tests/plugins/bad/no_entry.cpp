#include <qor/plugins/sio_plugin.h>

/// A library, but no plug-in.
QOR_SIO_EXPORT int somethingElse() { return 1; }
