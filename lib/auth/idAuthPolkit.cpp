/*
 * Authorization references through polkit on the system D-Bus.
 *
 * A reference is a polkit "unix-process" subject: this process's id, its start time (clock
 * ticks after boot, as polkit reads it from /proc) and its real user id. Its 32-byte
 * transferable form is, little-endian: magic, version, pid, uid, start time, 8 zero bytes.
 * Checking a right asks the authority's CheckAuthorization for that subject.
 *
 * This object speaks D-Bus and takes the bus address from the environment (except in
 * set-user-ID programs); it lives in a library of its own that the opener never links.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <dbus/dbus.h>

#include <mutex>

#include "hostinfo.h"
#include "id.h"
#include "log.h"
#include "misc/idInt.h"

static_assert(ID_AUTH_EXTERNAL_SIZE == 32);

namespace {

constexpr unsigned char kExternalMagic[4] = {'T', 'A', 'U', 'S'};
constexpr uint32_t kExternalVersion = 1;

constexpr const char *kAuthorityName = "org.freedesktop.PolicyKit1";
constexpr const char *kAuthorityPath = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char *kAuthorityInterface = "org.freedesktop.PolicyKit1.Authority";
constexpr dbus_uint32_t kAllowUserInteraction = 1;
constexpr const char *kDefaultSystemBus = "unix:path=/var/run/dbus/system_bus_socket";

void PutLE(unsigned char *p, uint64_t value, int bytes)
{
   for (int i = 0; i < bytes; i++) {
      p[i] = static_cast<unsigned char>(value >> (8 * i));
   }
}

uint64_t GetLE(const unsigned char *p, int bytes)
{
   uint64_t value = 0;
   for (int i = 0; i < bytes; i++) {
      value |= static_cast<uint64_t>(p[i]) << (8 * i);
   }
   return value;
}

/* A reference to this process, published as the cached one; NULL if /proc cannot tell. */
IdAuthRef *IdAuthCreate()
{
   pid_t pid = getpid();
   uint64_t ticks;
   if (!Hostinfo_GetProcessStartTicks(pid, &ticks)) {
      Warning("%s: AuthorizationCreate failed, error %d.\n", "IdAuthCreate", errno);
      return nullptr;
   }
   IdAuthRef *ref = static_cast<IdAuthRef *>(malloc(sizeof *ref));
   if (ref == nullptr) {
      Warning("%s: AuthorizationCreate failed, error %d.\n", "IdAuthCreate", ENOMEM);
      return nullptr;
   }
   ref->pid = pid;
   ref->uid = getuid(); /* the real id: super-user brackets only move the effective one */
   ref->startTicks = ticks;
   return IdAuthCachePublish(ref);
}

IdAuthRef *IdAuthGet()
{
   IdAuthRef *ref = IdAuthCacheGet();
   if (ref == nullptr) {
      ref = IdAuthCreate();
   }
   if (ref == nullptr) {
      Log("%s: Failed to obtain an AuthorizationRef.\n", "IdAuthGet");
   }
   return ref;
}

/*
 * D-Bus message building. Every append can fail only for want of memory; the message is then
 * discarded as a whole.
 */

bool AppendVariantEntry(DBusMessageIter *dict, const char *key, int type, const char *signature,
                        const void *value)
{
   DBusMessageIter entry, variant;
   return dbus_message_iter_open_container(dict, DBUS_TYPE_DICT_ENTRY, nullptr, &entry) &&
          dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key) &&
          dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, signature, &variant) &&
          dbus_message_iter_append_basic(&variant, type, value) &&
          dbus_message_iter_close_container(&entry, &variant) &&
          dbus_message_iter_close_container(dict, &entry);
}

bool AppendSubject(DBusMessageIter *args, const IdAuthRef &ref)
{
   const char *kind = "unix-process";
   dbus_uint32_t pid = static_cast<dbus_uint32_t>(ref.pid);
   dbus_uint64_t startTime = ref.startTicks;
   dbus_int32_t uid = static_cast<dbus_int32_t>(ref.uid);
   DBusMessageIter subject, details;
   return dbus_message_iter_open_container(args, DBUS_TYPE_STRUCT, nullptr, &subject) &&
          dbus_message_iter_append_basic(&subject, DBUS_TYPE_STRING, &kind) &&
          dbus_message_iter_open_container(&subject, DBUS_TYPE_ARRAY, "{sv}", &details) &&
          AppendVariantEntry(&details, "pid", DBUS_TYPE_UINT32, "u", &pid) &&
          AppendVariantEntry(&details, "start-time", DBUS_TYPE_UINT64, "t", &startTime) &&
          AppendVariantEntry(&details, "uid", DBUS_TYPE_INT32, "i", &uid) &&
          dbus_message_iter_close_container(&subject, &details) &&
          dbus_message_iter_close_container(args, &subject);
}

bool AppendDetails(DBusMessageIter *args, const char *prompt)
{
   DBusMessageIter details, entry;
   const char *key = "polkit.message";
   bool ok = dbus_message_iter_open_container(args, DBUS_TYPE_ARRAY, "{ss}", &details);
   if (ok && prompt != nullptr) {
      ok = dbus_message_iter_open_container(&details, DBUS_TYPE_DICT_ENTRY, nullptr, &entry) &&
           dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &key) &&
           dbus_message_iter_append_basic(&entry, DBUS_TYPE_STRING, &prompt) &&
           dbus_message_iter_close_container(&details, &entry);
   }
   return ok && dbus_message_iter_close_container(args, &details);
}

DBusMessage *NewCheckAuthorization(const IdAuthRef &ref, const char *right, const char *prompt,
                                   bool interactionAllowed)
{
   DBusMessage *message = dbus_message_new_method_call(kAuthorityName, kAuthorityPath,
                                                       kAuthorityInterface, "CheckAuthorization");
   if (message == nullptr) {
      return nullptr;
   }
   dbus_uint32_t flags = interactionAllowed ? kAllowUserInteraction : 0;
   const char *cancellationId = "";
   DBusMessageIter args;
   dbus_message_iter_init_append(message, &args);
   if (!AppendSubject(&args, ref) ||
       !dbus_message_iter_append_basic(&args, DBUS_TYPE_STRING, &right) ||
       !AppendDetails(&args, prompt) ||
       !dbus_message_iter_append_basic(&args, DBUS_TYPE_UINT32, &flags) ||
       !dbus_message_iter_append_basic(&args, DBUS_TYPE_STRING, &cancellationId)) {
      dbus_message_unref(message);
      return nullptr;
   }
   return message;
}

/* The is-authorized member of a (bba{ss}) authorization result. */
bool ResultIsAuthorized(DBusMessage *reply)
{
   DBusMessageIter args, result;
   if (!dbus_message_iter_init(reply, &args) ||
       dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_STRUCT) {
      return false;
   }
   dbus_message_iter_recurse(&args, &result);
   if (dbus_message_iter_get_arg_type(&result) != DBUS_TYPE_BOOLEAN) {
      return false;
   }
   dbus_bool_t authorized = FALSE;
   dbus_message_iter_get_basic(&result, &authorized);
   return authorized;
}

bool PolkitCheck(const IdAuthRef &ref, const char *right, const char *prompt,
                 bool interactionAllowed)
{
   static std::once_flag threadsOnce;
   std::call_once(threadsOnce, [] { dbus_threads_init_default(); });

   DBusError error;
   dbus_error_init(&error);
   /* Strings that are not UTF-8 would make libdbus abort the process. */
   if (!dbus_validate_utf8(right, &error) ||
       (prompt != nullptr && !dbus_validate_utf8(prompt, &error))) {
      Log("%s: %s\n", "Id_AuthCheck", error.message);
      dbus_error_free(&error);
      return false;
   }
   DBusMessage *request = NewCheckAuthorization(ref, right, prompt, interactionAllowed);
   if (request == nullptr) {
      Log("%s: out of memory.\n", "Id_AuthCheck");
      return false;
   }

   /*
    * A private connection of our own: no shared state, no exit or SIGPIPE changes. The address
    * is looked up on every call (libdbus would fix it for the life of the process), and never
    * taken from the environment of a set-user-ID process.
    */
   const char *address = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
   if (address == nullptr || address[0] == '\0') {
      address = kDefaultSystemBus;
   }
   dbus_connection_set_change_sigpipe(FALSE);
   DBusConnection *bus = dbus_connection_open_private(address, &error);
   if (bus != nullptr) {
      dbus_connection_set_exit_on_disconnect(bus, FALSE);
      if (!dbus_bus_register(bus, &error)) {
         dbus_connection_close(bus);
         dbus_connection_unref(bus);
         bus = nullptr;
      }
   }
   if (bus == nullptr) {
      Log("%s: system bus unavailable: %s\n", "Id_AuthCheck", error.message);
      dbus_error_free(&error);
      dbus_message_unref(request);
      return false;
   }

   /* An interactive check waits for the user as long as they take. */
   int timeout = interactionAllowed ? DBUS_TIMEOUT_INFINITE : DBUS_TIMEOUT_USE_DEFAULT;
   DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, request, timeout, &error);
   bool authorized = false;
   if (reply == nullptr) {
      Log("%s: %s: %s\n", "Id_AuthCheck", error.name, error.message);
      dbus_error_free(&error);
   } else {
      authorized = ResultIsAuthorized(reply);
      dbus_message_unref(reply);
   }
   dbus_message_unref(request);
   dbus_connection_close(bus);
   dbus_connection_unref(bus);
   return authorized;
}

}  // namespace

extern "C" {

void *Id_AuthGetExternal(size_t *size)
{
   const IdAuthRef *ref = IdAuthGet();
   if (ref == nullptr) {
      return nullptr;
   }
   unsigned char *form = static_cast<unsigned char *>(calloc(1, ID_AUTH_EXTERNAL_SIZE));
   if (form == nullptr) {
      Warning("Unable to allocate an AuthorizationExternalForm.\n");
      return nullptr;
   }
   memcpy(form, kExternalMagic, sizeof kExternalMagic);
   PutLE(form + 4, kExternalVersion, 4);
   PutLE(form + 8, static_cast<uint32_t>(ref->pid), 4);
   PutLE(form + 12, ref->uid, 4);
   PutLE(form + 16, ref->startTicks, 8);
   *size = ID_AUTH_EXTERNAL_SIZE;
   return form;
}

bool Id_AuthSet(const void *externalForm, size_t size)
{
   if (externalForm == nullptr || size != ID_AUTH_EXTERNAL_SIZE) {
      Warning("%s: Invalid argument.\n", "Id_AuthSet");
      return false;
   }
   const unsigned char *form = static_cast<const unsigned char *>(externalForm);
   uint64_t pid = GetLE(form + 8, 4);
   uint64_t startTicks = GetLE(form + 16, 8);
   uint64_t currentTicks;
   /* A valid form names a process that is still the one it was made for. */
   bool valid = memcmp(form, kExternalMagic, sizeof kExternalMagic) == 0 &&
                GetLE(form + 4, 4) == kExternalVersion && GetLE(form + 24, 8) == 0 && pid > 0 &&
                pid <= INT32_MAX &&
                Hostinfo_GetProcessStartTicks(static_cast<pid_t>(pid), &currentTicks) &&
                currentTicks == startTicks;
   IdAuthRef *ref = valid ? static_cast<IdAuthRef *>(malloc(sizeof *ref)) : nullptr;
   if (ref == nullptr) {
      Warning("AuthorizationCreateFromExternalForm failed.\n");
      return false;
   }
   ref->pid = static_cast<pid_t>(pid);
   ref->uid = static_cast<uid_t>(GetLE(form + 12, 4));
   ref->startTicks = startTicks;
   IdAuthCacheInstall(ref);
   return true;
}

bool Id_AuthCheck(const char *right, const char *prompt, bool interactionAllowed)
{
   if (right == nullptr) {
      return false;
   }
   const IdAuthRef *ref = IdAuthGet();
   return ref != nullptr && PolkitCheck(*ref, right, prompt, interactionAllowed);
}

}  // extern "C"
