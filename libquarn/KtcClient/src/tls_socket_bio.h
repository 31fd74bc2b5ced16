#pragma once
// A BIO over a connected socket that never raises SIGPIPE and can make single reads not
// wait. Both ends of a TLS link use it: the program's transport and the virtual lidar.

#include <openssl/bio.h>

namespace quarn::lidar {

// A BIO reading and writing `fd` (not closed by the BIO). Null on allocation failure.
BIO* NewSocketBio(int fd);
// true: reads return at once (a retry when nothing is there) until set back to false.
void SetSocketBioNoWait(BIO* bio, bool no_wait);

}  // namespace quarn::lidar
