/*
 * brix-config: reads, changes and checks configuration files, and shows what the preference
 * layers make of a setting.
 *
 * Exit status: 0 success, 1 a failed check or lookup, 2 bad usage.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "dictionary.h"
#include "log.h"
#include "msgList.h"
#include "preference.h"

namespace {

constexpr char kProgram[] = "brix-config";
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "Usage: brix-config COMMAND ARGUMENTS...\n"
    "Read, change and check configuration files.\n"
    "\n"
    "Commands:\n"
    "  get FILE NAME [--type TYPE] [--default VALUE]\n"
    "                        print NAME's value; TYPE is string (the default), bool, long,\n"
    "                        double, tristate or int64, and the value must parse as it\n"
    "  set FILE NAME VALUE   set NAME to VALUE, keeping every other line of FILE\n"
    "  unset FILE NAME       remove NAME from FILE\n"
    "  dump FILE             print every entry (secret ones hidden)\n"
    "  check FILE            read FILE; report every problem found\n"
    "  prefs NAME            print the value the preference layers give NAME, then the\n"
    "                        layer and file it came from\n"
    "\n"
    "Options:\n"
    "  -v, --verbose         write the library's log to standard error\n"
    "  -h, --help            show this help\n"
    "\n"
    "Exit status: 0 on success, 1 when a check or lookup fails, 2 on bad usage.\n";

int Usage(const char *fmt, const char *arg)
{
   fprintf(stderr, "%s: ", kProgram);
   fprintf(stderr, fmt, arg);
   fprintf(stderr, "\nTry '%s --help' for more information.\n", kProgram);
   return kExitUsage;
}

void Error(const std::string &text)
{
   fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
}

/* Every message of the list on standard error, oldest first; frees the list. */
void ReportMessages(MsgList *msgs)
{
   std::vector<std::string> lines;
   for (MsgList *m = msgs; m != nullptr; m = m->next) {
      MsgList one = *m;
      one.next = nullptr;
      char *text = MsgList_ToString(&one);
      std::string line = text != nullptr ? text : "";
      free(text);
      while (!line.empty() && line.back() == '\n') {
         line.pop_back();
      }
      lines.push_back(line);
   }
   for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
      Error(*it);
   }
   MsgList_Free(msgs);
}

int TypeCode(const std::string &name)
{
   static const struct {
      const char *name;
      int code;
   } kTypes[] = {{"string", DICT_STRING}, {"bool", DICT_BOOL},         {"long", DICT_LONG},
                 {"double", DICT_DOUBLE}, {"tristate", DICT_TRISTATE}, {"int64", DICT_INT64}};
   for (const auto &t : kTypes) {
      if (name == t.name) {
         return t.code;
      }
   }
   return -1;
}

/* A name a file can hold: ASCII, no blanks, "#", "=" or quotes, not a metavariable. */
bool ValidName(const char *name)
{
   if (name[0] == '\0' || name[0] == '.') {
      return false;
   }
   for (const char *p = name; *p != '\0'; p++) {
      unsigned char c = (unsigned char)*p;
      if (c <= ' ' || c >= 0x7F || c == '#' || c == '=' || c == '"') {
         return false;
      }
   }
   return true;
}

/* Reads FILE; a missing file is an empty dictionary when allowMissing. */
Dictionary *Load(const char *path, bool allowMissing)
{
   Dictionary *dict = Dictionary_Create();
   MsgList *msgs = nullptr;
   if (!DictionaryLoad(dict, path, true, STRING_ENCODING_UTF8, &msgs)) {
      if (allowMissing && errno == ENOENT && Dictionary_NumEntries(dict) == 0) {
         MsgList_Free(msgs);
         Dictionary_Clear(dict);
         return dict;
      }
      ReportMessages(msgs);
      Dictionary_Free(dict);
      return nullptr;
   }
   MsgList_Free(msgs);
   return dict;
}

bool Save(Dictionary *dict, const char *path)
{
   MsgList *msgs = nullptr;
   if (!Dictionary_WriteFile(dict, path, &msgs)) {
      ReportMessages(msgs);
      return false;
   }
   return true;
}

/* The value of name in dict as type, printed; false (reported) when it does not parse. */
bool PrintTyped(Dictionary *dict, const char *name, int type)
{
   MsgList *msgs = nullptr;
   char *text = Dictionary_GetTypedText(dict, name, type, &msgs);
   if (text == nullptr) {
      ReportMessages(msgs);
      return false;
   }
   MsgList_Free(msgs);
   printf("%s\n", text);
   free(text);
   return true;
}

int CmdGet(std::vector<const char *> args)
{
   const char *defaultValue = nullptr;
   int type = DICT_STRING;
   std::vector<const char *> positional;
   for (size_t i = 0; i < args.size(); i++) {
      std::string a = args[i];
      if (a == "--type" || a == "--default") {
         if (i + 1 == args.size()) {
            return Usage("option '%s' needs a value", args[i]);
         }
         if (a == "--type") {
            type = TypeCode(args[++i]);
            if (type < 0) {
               return Usage("unknown type '%s'", args[i]);
            }
         } else {
            defaultValue = args[++i];
         }
      } else if (a.size() > 1 && a[0] == '-' && a != "-") {
         return Usage("unknown option '%s'", args[i]);
      } else {
         positional.push_back(args[i]);
      }
   }
   if (positional.size() != 2) {
      return Usage("%s", "get takes FILE and NAME");
   }
   Dictionary *dict = Load(positional[0], false);
   if (dict == nullptr) {
      return kExitFailed;
   }
   const char *name = positional[1];
   bool ok;
   if (Dictionary_IsDefined(dict, name)) {
      ok = PrintTyped(dict, name, type);
   } else if (defaultValue != nullptr) {
      // The default must parse as the type too.
      Dictionary *scratch = Dictionary_Create();
      Dictionary_SetString(scratch, name, defaultValue);
      ok = PrintTyped(scratch, name, type);
      Dictionary_Free(scratch);
   } else {
      Error(std::string("\"") + name + "\" is not set in \"" + positional[0] + "\"");
      ok = false;
   }
   Dictionary_Free(dict);
   return ok ? kExitOk : kExitFailed;
}

int CmdSet(const std::vector<const char *> &args, bool unset)
{
   size_t wanted = unset ? 2 : 3;
   if (args.size() != wanted) {
      return Usage("%s", unset ? "unset takes FILE and NAME" : "set takes FILE, NAME and VALUE");
   }
   const char *path = args[0];
   const char *name = args[1];
   if (!ValidName(name)) {
      return Usage("invalid name '%s'", name);
   }
   Dictionary *dict = Load(path, !unset);
   if (dict == nullptr) {
      return kExitFailed;
   }
   bool ok = true;
   if (unset) {
      if (!Dictionary_Unset(dict, name)) {
         Error(std::string("\"") + name + "\" is not set in \"" + path + "\"");
         ok = false;
      }
   } else {
      Dictionary_SetString(dict, name, args[2]);
   }
   ok = ok && Save(dict, path);
   Dictionary_Free(dict);
   return ok ? kExitOk : kExitFailed;
}

int CmdDump(const std::vector<const char *> &args)
{
   if (args.size() != 1) {
      return Usage("%s", "dump takes FILE");
   }
   Dictionary *dict = Load(args[0], false);
   if (dict == nullptr) {
      return kExitFailed;
   }
   Dictionary_Dump(
       dict, [](void *, const char *line) { fputs(line, stdout); }, nullptr);
   Dictionary_Free(dict);
   return kExitOk;
}

int CmdCheck(const std::vector<const char *> &args)
{
   if (args.size() != 1) {
      return Usage("%s", "check takes FILE");
   }
   Dictionary *dict = Load(args[0], false);
   Dictionary_Free(dict);
   return dict != nullptr ? kExitOk : kExitFailed;
}

int CmdPrefs(const std::vector<const char *> &args)
{
   if (args.size() != 1) {
      return Usage("%s", "prefs takes NAME");
   }
   const char *name = args[0];
   Preference_Init();
   PreferenceLayer layer = Preference_Find(name);
   int status = kExitOk;
   if (layer == PREF_NO_LAYER) {
      Error(std::string("\"") + name + "\" is not set in any preference layer");
      status = kExitFailed;
   } else {
      char *value = Preference_GetString(nullptr, name);
      char *path = Preference_LayerPath(layer);
      printf("%s\n%s %s\n", value != nullptr ? value : "", Preference_LayerName(layer),
             path != nullptr ? path : "");
      free(value);
      free(path);
   }
   Preference_Exit();
   return status;
}

}  // namespace

int main(int argc, char **argv)
{
   Log_SetOutputFd(-1);
   std::vector<const char *> args;
   for (int i = 1; i < argc; i++) {
      std::string a = argv[i];
      if (a == "-h" || a == "--help") {
         fputs(kUsage, stdout);
         return kExitOk;
      }
      if (a == "-v" || a == "--verbose") {
         Log_SetOutputFd(2);
         continue;
      }
      args.push_back(argv[i]);
   }
   if (args.empty()) {
      return Usage("%s", "missing command");
   }
   std::string command = args[0];
   args.erase(args.begin());
   if (command == "get") {
      return CmdGet(args);
   }
   if (command == "set" || command == "unset") {
      return CmdSet(args, command == "unset");
   }
   if (command == "dump") {
      return CmdDump(args);
   }
   if (command == "check") {
      return CmdCheck(args);
   }
   if (command == "prefs") {
      return CmdPrefs(args);
   }
   return Usage("unknown command '%s'", command.c_str());
}
