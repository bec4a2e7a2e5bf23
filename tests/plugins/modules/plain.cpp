#include <qor/plugins/sio_plugin.h>

/// Without entry function and record.
QOR_SIO_EXPORT void shared() {}
