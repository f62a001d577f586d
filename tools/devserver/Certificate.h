#pragma once

#include <string>

namespace devserver {

// Writes a fresh self-signed certificate for localhost and 127.0.0.1, and its
// key, as PEM files. Throws std::runtime_error when OpenSSL refuses.
void writeSelfSignedCertificate(const std::string& certPath, const std::string& keyPath);

} // namespace devserver
