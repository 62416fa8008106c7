#include "version.h"

#include "kv_version.h"

const char* version_banner() {
    return "Kelvane JVMTI Revision: " KV_PRODUCT_VERSION " Build: " KV_BUILD_NUMBER "." KV_SOURCE_REVISION
           "." KV_PRODUCT_VERSION " Date: " KV_BUILD_DATE;
}
