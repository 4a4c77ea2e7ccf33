#pragma once

#include "core/types/ZnString.h"

/// A certificate of a TLS server with its private key, both files in PEM form.
///
/// Thread: a value.
struct ZnSslLocalCredential {
    ZnString hostName;        // the server name of a client that gets this certificate; empty for none
    ZnString certificatePath; // with the chain behind it, if there is one
    ZnString privateKeyPath;
    bool isDefault = false; // serves the clients that name no host, or an unknown one
};
