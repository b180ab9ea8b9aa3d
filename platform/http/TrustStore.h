// The process's trusted roots for TLS. Threads: any.
#pragma once

struct ssl_ctx_st;

/// Makes the TLS context trust the roots of the file that SSL_CERT_FILE names, or the system's without that variable. A
/// file that is not there, or holds no certificate, means that nothing is trusted. The roots are read once and shared;
/// they are read anew when the variable, or the file, has changed, and after a failure. Returns: false if out of
/// memory.
bool UseTrustStore(ssl_ctx_st *context);
