// The words for the modes, as they go over the bus. The stand-in service has them from here, too.
#ifndef PROXYMANAGER_MODEWORDS_H
#define PROXYMANAGER_MODEWORDS_H

constexpr const char *MODE_WORDS[] = {"off", "manual", "pacurl", "wpad"}; // indexed by ProxyMode

#endif
