// Models: where each one's platform is, and what its connection carries. Only this component writes the table.
#pragma once

#include <cloudtunnel.h>

// The port that means a plain connection; every other port means TLS.
constexpr uint16_t kPlainPort = 80;

// cloudtunnel_socket_getUrlNodeByModelname returns the model's node, or null.
cloudtunnel_url_node *cloudtunnel_socket_getUrlNodeByModelname(const char *model);

// model_data_type returns what the model's connection carries; HTTP for an unknown model. model_set_data_type changes
// that, and nothing else; an unknown model is ignored.
uint32_t model_data_type(const char *model);
void model_set_data_type(const char *model, uint32_t type);

// models_init makes the table empty without freeing its nodes; models_deinit frees them. The resolver goes with them.
void models_init();
void models_deinit();
