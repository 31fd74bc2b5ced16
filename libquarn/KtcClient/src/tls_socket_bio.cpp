#include "tls_socket_bio.h"

#include <sys/socket.h>

#include <cerrno>
#include <mutex>

#include "platform/net.h"
#include "platform/net_socket_options.h"

namespace quarn::lidar {
namespace {

struct SocketBioState {
  int fd = -1;
  bool no_wait = false;
};

bool Retryable(int err) {
  return net::IsWouldBlock(err) || net::IsInterrupted(err) || err == ETIMEDOUT;
}

int BioWrite(BIO* bio, const char* data, int length) {
  auto* state = static_cast<SocketBioState*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  const ssize_t n = ::send(state->fd, data, static_cast<size_t>(length), net::SendFlagsNoSignal());
  if (n < 0 && Retryable(errno)) BIO_set_retry_write(bio);
  return static_cast<int>(n);
}

int BioRead(BIO* bio, char* buffer, int length) {
  auto* state = static_cast<SocketBioState*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  const ssize_t n = ::recv(state->fd, buffer, static_cast<size_t>(length), state->no_wait ? MSG_DONTWAIT : 0);
  // A receive time-out is a retry too, so that TLS reads end the way plain ones do.
  if (n < 0 && Retryable(errno)) BIO_set_retry_read(bio);
  return static_cast<int>(n);
}

long BioCtrl(BIO*, int cmd, long, void*) {  // NOLINT(runtime/int): OpenSSL's signature
  return cmd == BIO_CTRL_FLUSH ? 1 : 0;
}

int BioCreate(BIO* bio) {
  BIO_set_data(bio, new SocketBioState);
  BIO_set_init(bio, 1);
  return 1;
}

int BioDestroy(BIO* bio) {
  delete static_cast<SocketBioState*>(BIO_get_data(bio));
  BIO_set_data(bio, nullptr);
  return 1;
}

BIO_METHOD* Method() {
  static BIO_METHOD* method = nullptr;
  static std::once_flag once;
  std::call_once(once, [] {
    method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "ktc socket");
    BIO_meth_set_write(method, BioWrite);
    BIO_meth_set_read(method, BioRead);
    BIO_meth_set_ctrl(method, BioCtrl);
    BIO_meth_set_create(method, BioCreate);
    BIO_meth_set_destroy(method, BioDestroy);
  });
  return method;
}

}  // namespace

BIO* NewSocketBio(int fd) {
  BIO* bio = BIO_new(Method());
  if (bio != nullptr) static_cast<SocketBioState*>(BIO_get_data(bio))->fd = fd;
  return bio;
}

void SetSocketBioNoWait(BIO* bio, bool no_wait) {
  static_cast<SocketBioState*>(BIO_get_data(bio))->no_wait = no_wait;
}

}  // namespace quarn::lidar
