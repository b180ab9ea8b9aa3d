// The process's trusted roots for TLS. Safe from any thread.
#pragma once

struct ssl_ctx_st;

/// Makes the TLS context trust the roots of the file that SSL_CERT_FILE names, or the system's without that variable. A
/// file that is missing, or holds no certificate, means that nothing is trusted. The roots are read once and shared;
/// they are read again when the variable, or the file, has changed, and after a failure. Returns: false if out of
/// memory.
bool UseTrustStore(ssl_ctx_st *context);

/// Lets the next connection read the roots again. For a handshake that failed: if memory ran out while a root was read
/// or first used, OpenSSL may have kept that root in a state in which it verifies nothing.
void ForgetTrustStore();
