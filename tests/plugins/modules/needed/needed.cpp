#include <qor/plugins/sio_plugin.h>

QOR_SIO_EXPORT int neededValue() { return NEEDED_VALUE; }
