// Where the device's identity comes from.
#ifndef TOOLS_ATLS_POST_IDENTITY_H
#define TOOLS_ATLS_POST_IDENTITY_H

#include <string>

// The platform library in use, and the folder that the stand-in reads.
std::string identity_place();

#endif
