#include "LoginWindowPList.h"

#include <plist/plist.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "Assert.h"
#include "AutostartEntry.h"
#include "FileSystemUtils.h"
#include "FolderFinder.h"
#include "Utf8Text.h"

namespace {

const int kPreferencesFolderId = 5;
const char kFileName[] = "loginwindow.plist";
const char kItemsKey[] = "AutoLaunchedApplicationDictionary";
const char kPathKey[] = "Path";
const char kHideKey[] = "Hide";

struct PlistFree {
  void operator()(plist_t inNode) const { plist_free(inNode); }
};
// Owns a whole property-list tree (plist_t is a plain pointer).
using PlistOwner = std::unique_ptr<void, PlistFree>;

struct XmlFree {
  void operator()(char* inXml) const { plist_to_xml_free(inXml); }
};
// Owns the text that plist_to_xml allocates.
using XmlOwner = std::unique_ptr<char, XmlFree>;

// kRefused: the root holds the items' key with something other than an
// array, so the item could not be listed; the file is still written back.
enum class EditResult { kFailed, kUnchanged, kChanged, kRefused };

// A new item dictionary; keys in the order the platform's serialiser sorts them.
plist_t NewItem(const std::string& inAppPath) {
  plist_t item = plist_new_dict();
  plist_dict_set_item(item, kHideKey, plist_new_bool(0));
  plist_dict_set_item(item, kPathKey, plist_new_string(inAppPath.c_str()));
  return item;
}

bool ItemHasPath(plist_t inItem, const std::string& inAppPath) {
  if (plist_get_node_type(inItem) != PLIST_DICT) return false;
  plist_t path = plist_dict_get_item(inItem, kPathKey);
  if (path == nullptr || plist_get_node_type(path) != PLIST_STRING) return false;
  const char* text = plist_get_string_ptr(path, nullptr);
  return text != nullptr && inAppPath == text;
}

// Index of the first item whose "Path" is inAppPath, or -1.
long FindItem(plist_t inArray, const std::string& inAppPath) {
  const uint32_t count = plist_array_get_size(inArray);
  for (uint32_t i = 0; i < count; ++i) {
    if (ItemHasPath(plist_array_get_item(inArray, i), inAppPath)) return static_cast<long>(i);
  }
  return -1;
}

EditResult AddToRoot(plist_t ioRoot, const std::string& inAppPath) {
  plist_t items = plist_dict_get_item(ioRoot, kItemsKey);
  if (items == nullptr) {
    plist_t array = plist_new_array();
    plist_array_append_item(array, NewItem(inAppPath));
    plist_dict_set_item(ioRoot, kItemsKey, array);
    return EditResult::kChanged;
  }
  if (plist_get_node_type(items) != PLIST_ARRAY) {
    // Adding a key never replaces one that is there: the other value stays,
    // yet the file is rewritten as for any add that found no item.
    return EditResult::kRefused;
  }
  if (FindItem(items, inAppPath) >= 0) return EditResult::kUnchanged;
  plist_array_append_item(items, NewItem(inAppPath));
  return EditResult::kChanged;
}

EditResult RemoveFromRoot(plist_t ioRoot, const std::string& inAppPath) {
  plist_t items = plist_dict_get_item(ioRoot, kItemsKey);
  if (items == nullptr || plist_get_node_type(items) != PLIST_ARRAY) return EditResult::kUnchanged;
  long index = FindItem(items, inAppPath);
  if (index < 0) return EditResult::kUnchanged;
  // Search again after every removal so that duplicates go too.
  for (; index >= 0; index = FindItem(items, inAppPath)) {
    plist_array_remove_item(items, static_cast<uint32_t>(index));
  }
  if (plist_array_get_size(items) == 0) plist_dict_remove_item(ioRoot, kItemsKey);
  return EditResult::kChanged;
}

// Replaces the buffer with the XML of the root. A root without keys becomes
// an empty buffer, so the file is rewritten with 0 bytes rather than as an
// empty property list; readers of this file take both as "no items". If the
// serialiser fails the buffer keeps its old content.
void Serialise(plist_t cfDictRef, std::string& ioBuffer) {
  QVD_ASSERT(NULL != cfDictRef);
  if (plist_dict_get_size(cfDictRef) == 0) {
    ioBuffer.clear();
    return;
  }
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(cfDictRef, &xml, &length);
  XmlOwner owner(xml);
  if (!owner) return;
  ioBuffer.assign(xml, xml + length);
}

// Parses the buffer into a root dictionary; null when it is not an XML
// property list with a dictionary at its root.
PlistOwner ParseRoot(const std::string& inBuffer) {
  if (inBuffer.size() > UINT32_MAX) return PlistOwner();
  plist_t root = nullptr;
  plist_from_xml(inBuffer.data(), static_cast<uint32_t>(inBuffer.size()), &root);
  PlistOwner owner(root);
  if (owner && plist_get_node_type(root) != PLIST_DICT) owner.reset();
  return owner;
}

EditResult EditLoginItems(std::string& ioBuffer, const std::string& inAppPath, bool inRemove) {
  // The path becomes a Unicode string node; bytes that are not UTF-8, or a
  // NUL that would cut the C string short, cannot be one.
  if (!IsValidUtf8(inAppPath) || inAppPath.find('\0') != std::string::npos) return EditResult::kFailed;
  PlistOwner root;
  bool changed = false;
  if (ioBuffer.empty()) {
    if (inRemove) return EditResult::kUnchanged;
    root.reset(plist_new_dict());
    changed = true;
  } else {
    root = ParseRoot(ioBuffer);
    if (!root) return EditResult::kFailed;
  }
  const EditResult edit = inRemove ? RemoveFromRoot(root.get(), inAppPath) : AddToRoot(root.get(), inAppPath);
  if (edit != EditResult::kUnchanged) changed = true;
  if (!changed) return EditResult::kUnchanged;
  Serialise(root.get(), ioBuffer);
  return edit == EditResult::kRefused ? edit : EditResult::kChanged;
}

// The edit of the property list in inFolder; inRemove selects removal.
// kFailed, kRefused (written back, the item not listed), or kChanged for
// any other success, written or not.
EditResult UpdatePropertyList(const std::string& inFolder, const std::string& inAppPath, bool inRemove) {
  const std::string sPath = FileSystemUtils::AppendPath(inFolder, kFileName);
  std::string buffer;
  if (FileSystemUtils::PathExists(sPath)) {
    if (FileSystemUtils::ReadWholeFile(sPath, buffer) != FileSystemUtils::ReadStatus::kComplete) {
      return EditResult::kFailed;
    }
  } else if (inRemove) {
    return EditResult::kChanged;  // nothing to remove from
  }
  const EditResult edit = EditLoginItems(buffer, inAppPath, inRemove);
  if (edit == EditResult::kFailed || edit == EditResult::kUnchanged) return edit;
  return FileSystemUtils::WriteWholeFile(sPath, buffer) ? edit : EditResult::kFailed;
}

// Both operations: the property list as always, then the autostart entry
// that makes the change take effect on a Linux desktop. The entry follows
// what the list holds, not what was asked: an item the list refused gets
// none, and a removed item loses its entry whatever the list held. The
// result is the list's, and false when the entry could not follow it.
bool UpdateLoginItems(const std::string& inAppPath, bool inRemove) {
  std::string sFolder;
  if (!FindSpecialFolder(kPreferencesFolderId, sFolder, true)) return false;
  const EditResult edit = UpdatePropertyList(sFolder, inAppPath, inRemove);
  if (inRemove || edit == EditResult::kRefused) {
    const bool entryGone = RemoveAutostartEntry(sFolder, inAppPath);
    return edit != EditResult::kFailed && (entryGone || edit == EditResult::kRefused);
  }
  return edit != EditResult::kFailed && WriteAutostartEntry(sFolder, inAppPath);
}

}  // namespace

bool AddLoginItem(const std::string& inAppPath) { return UpdateLoginItems(inAppPath, false); }

bool RemoveLoginItem(const std::string& inAppPath) { return UpdateLoginItems(inAppPath, true); }
