#include <qor/plugins/sio_plugin.h>

static int sIntroductions = 0;

/// Does not take part, and counts the introductions it gets all the same.
QOR_SIO_EXPORT int qorSIOEFunc(void*, unsigned long code, unsigned long, unsigned long, void*, void*) {
	if (code == qorSIO_PI_CALLBACK) ++sIntroductions;
	return 1;
}

QOR_SIO_EXPORT int introductions() { return sIntroductions; }
