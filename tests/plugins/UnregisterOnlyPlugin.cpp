// A library with the plug-in's file name that exports only the unregister
// entry point: the loader must skip it without calling anything in it.
#include "IpmUserCustom.h"
#include "PluginTrace.h"

namespace {

__attribute__((destructor)) void markClosing()
{
    appendPluginTrace("unregister-only fini");
}

}  // namespace

void ipm_user_custom_unregister()
{
    appendPluginTrace("unregister-only unregister");
}
