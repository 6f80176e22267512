// A module for OpenSSL's configuration: it names the authorities that the TLS connections of a process trust.
//
// VerifyMode in the configuration makes OpenSSL check certificates for a library that does not ask for it. Which
// authorities to trust is a command that OpenSSL takes from programs only: VerifyCAFile is refused for system_default.
// The configuration can load this file, and OpenSSL then calls context_made while it makes a TLS context, so neither
// the library nor the program changes.
//
// The module adds authorities and nothing else. Where it is missing, or cannot do its work, VerifyMode stands alone,
// and no platform is accepted.
#include <openssl/conf.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

// OpenSSL looks these names up in the file. Only the linker sees them: OpenSSL's header declares another OPENSSL_init.
#define EXPORTED __attribute__((visibility("default")))
EXPORTED int trust_begin(CONF_IMODULE *module, const CONF *configuration) __asm__("OPENSSL_init");
EXPORTED void trust_end(CONF_IMODULE *module) __asm__("OPENSSL_finish");

static char *g_authorities = NULL;  // a PEM file, read for each connection: a new one needs no restart
static char *g_name = NULL;         // the name that the certificate must be issued for; null: any
static int g_index = -1;            // of our data in each context. There are none; a context tells us of its making

// A step that fails ends the work before the context has authorities.
static void context_made(void *context, void *data, CRYPTO_EX_DATA *all, int index, long number, void *pointer) {
    (void)data, (void)all, (void)index, (void)number, (void)pointer;
    if (g_name && X509_VERIFY_PARAM_set1_host(SSL_CTX_get0_param(context), g_name, 0) != 1) return;
    SSL_CTX_load_verify_locations(context, g_authorities, NULL);
}

// setting copies the value of `key`, if there is one, to `text`. False when memory is short.
static int setting(const CONF *configuration, const char *section, const char *key, char **text) {
    const char *value = NCONF_get_string(configuration, section, key);
    if (!value) return 1;
    *text = OPENSSL_strdup(value);
    return *text != NULL;
}

int trust_begin(CONF_IMODULE *module, const CONF *configuration) {
    const char *section = CONF_imodule_get_value(module);
    if (setting(configuration, section, "CAFile", &g_authorities) && setting(configuration, section, "Name", &g_name) &&
        g_authorities) {
        g_index = SSL_CTX_get_ex_new_index(0, NULL, context_made, NULL, NULL);
    }
    if (g_index >= 0) return 1;
    trust_end(module);
    return 0;
}

void trust_end(CONF_IMODULE *module) {
    (void)module;
    if (g_index >= 0) CRYPTO_free_ex_index(CRYPTO_EX_INDEX_SSL_CTX, g_index);
    g_index = -1;
    OPENSSL_free(g_authorities);
    OPENSSL_free(g_name);
    g_authorities = NULL;
    g_name = NULL;
}
