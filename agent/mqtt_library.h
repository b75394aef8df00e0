// libmosquitto, loaded when mqtt_url asks for it: an agent that publishes nothing
// maps no MQTT or TLS library (about 2 MB of resident memory spared).
#pragma once

#include <mosquitto.h>

#include <string>

// clang-format off
#define HOSTRIX_MOSQUITTO_FUNCTIONS(X) \
    X(mosquitto_lib_init) X(mosquitto_new) X(mosquitto_destroy) X(mosquitto_strerror) \
    X(mosquitto_connack_string) X(mosquitto_connect_callback_set) \
    X(mosquitto_disconnect_callback_set) X(mosquitto_message_callback_set) \
    X(mosquitto_will_set) X(mosquitto_username_pw_set) X(mosquitto_connect_async) \
    X(mosquitto_disconnect) X(mosquitto_socket) X(mosquitto_want_write) X(mosquitto_loop_read) \
    X(mosquitto_loop_write) X(mosquitto_loop_misc) X(mosquitto_publish) X(mosquitto_subscribe)
// clang-format on

struct MosquittoApi {
#define HOSTRIX_MOSQUITTO_MEMBER(name) decltype(&::name) name = nullptr;
    HOSTRIX_MOSQUITTO_FUNCTIONS(HOSTRIX_MOSQUITTO_MEMBER)
#undef HOSTRIX_MOSQUITTO_MEMBER
};

// The library, loaded and initialised on first use; nullptr and the reason in WHY
// when it is not installed (Debian libmosquitto1) or lacks a function.
const MosquittoApi *loadMosquitto(std::string &why);
