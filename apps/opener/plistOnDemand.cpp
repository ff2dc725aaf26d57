/*
 * libplist for the opener, loaded when a property list is first used. Only an installation
 * reads property lists, so a hand-over to a running daemon maps no library beyond the C
 * library. The library is opened by the absolute path the program was built against: no
 * search path, from the environment or elsewhere, is consulted.
 */
#include <dlfcn.h>

#include <plist/plist.h>

#include "log.h"

namespace {

void *Library()
{
   static void *handle = [] {
      void *h = dlopen(BRIX_PLIST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
      if (h == nullptr) {
         Panic("Cannot load %s: %s\n", BRIX_PLIST_LIBRARY, dlerror());
      }
      return h;
   }();
   return handle;
}

template <typename Fn>
Fn Symbol(const char *name)
{
   void *symbol = dlsym(Library(), name);
   if (symbol == nullptr) {
      Panic("Cannot find %s in %s: %s\n", name, BRIX_PLIST_LIBRARY, dlerror());
   }
   return reinterpret_cast<Fn>(symbol);
}

}  // namespace

/* Each function resolves the library's own on first use and calls it from then on. */
#define PLIST_ON_DEMAND(ret, name, params, args)             \
   ret name params                                           \
   {                                                         \
      static const auto real = Symbol<ret(*) params>(#name); \
      return real args;                                      \
   }

extern "C" {

PLIST_ON_DEMAND(plist_t, plist_new_dict, (void), ())
PLIST_ON_DEMAND(plist_t, plist_new_string, (const char *val), (val))
PLIST_ON_DEMAND(plist_t, plist_new_uint, (uint64_t val), (val))
PLIST_ON_DEMAND(plist_t, plist_new_data, (const char *val, uint64_t length), (val, length))
PLIST_ON_DEMAND(void, plist_free, (plist_t plist), (plist))
PLIST_ON_DEMAND(void, plist_dict_new_iter, (plist_t node, plist_dict_iter *iter), (node, iter))
PLIST_ON_DEMAND(void, plist_dict_next_item,
                (plist_t node, plist_dict_iter iter, char **key, plist_t *val),
                (node, iter, key, val))
PLIST_ON_DEMAND(plist_t, plist_dict_get_item, (plist_t node, const char *key), (node, key))
PLIST_ON_DEMAND(void, plist_dict_set_item, (plist_t node, const char *key, plist_t item),
                (node, key, item))
PLIST_ON_DEMAND(plist_type, plist_get_node_type, (plist_t node), (node))
PLIST_ON_DEMAND(const char *, plist_get_string_ptr, (plist_t node, uint64_t *length),
                (node, length))
PLIST_ON_DEMAND(void, plist_get_uint_val, (plist_t node, uint64_t *val), (node, val))
PLIST_ON_DEMAND(const char *, plist_get_data_ptr, (plist_t node, uint64_t *length), (node, length))
PLIST_ON_DEMAND(void, plist_to_xml, (plist_t plist, char **xml, uint32_t *length),
                (plist, xml, length))
PLIST_ON_DEMAND(void, plist_to_xml_free, (char *xml), (xml))
PLIST_ON_DEMAND(void, plist_from_memory, (const char *data, uint32_t length, plist_t *plist),
                (data, length, plist))

}  // extern "C"
