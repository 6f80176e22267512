// Name resolution: one result is cached; a model holds a copy.
#pragma once

#include <netdb.h>

// resolver_addresses returns the addresses of the host `url`, white space around it aside, as a list for the caller to
// free with addresses_free. They come from the cache if it holds this host. Null, with the reason logged, on failure.
[[nodiscard]] struct addrinfo *resolver_addresses(const char *url);

// addresses_free frees a copied list; null is allowed.
void addresses_free(struct addrinfo *list);

// resolver_init forgets the cached result without freeing it; resolver_deinit frees it.
void resolver_init();
void resolver_deinit();
