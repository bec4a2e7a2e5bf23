#include <qor/plugins/sio_plugin.h> // how an export is marked

#include <cstdlib>

/// Shows that all five arguments arrive, in their order. Needs another library for it.
QOR_SIO_EXPORT int qorDMFUNC(unsigned long a, unsigned long b, unsigned long c, void* p1, void* p2) {
	*static_cast<unsigned long*>(p1) = a * 100 + b * 10 + c;
	return std::atoi(static_cast<const char*>(p2));
}

QOR_SIO_EXPORT void shared() {}
