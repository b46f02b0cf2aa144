// A client library that lacks "CreateTransportChannel": it exports only a misspelt name.
extern "C" __attribute__((visibility("default"))) int CreateTransportChanel() {
    return 0;
}
