// CoreServices stand-in, file manager part: object references and their catalog information.
#pragma once

#include <MacTypes.h>

#include <cstddef>

typedef SInt16 FSVolumeRefNum;
typedef UInt32 FSCatalogInfoBitmap;

// Seconds since 1904-01-01 00:00 UTC in 48 bits, plus 1/65536ths of a second.
#pragma pack(push, 2)
struct UTCDateTime {
    UInt16 highSeconds;
    UInt32 lowSeconds;
    UInt16 fraction;
};
#pragma pack(pop)
static_assert(sizeof(UTCDateTime) == 8);

struct FSPermissionInfo {
    UInt32 userID;
    UInt32 groupID;
    UInt8 reserved1;
    UInt8 userAccess;
    UInt16 mode;  // the BSD mode word, file type bits included
    UInt32 reserved2;
};
static_assert(sizeof(FSPermissionInfo) == 16 && offsetof(FSPermissionInfo, mode) == 10);

// The two readings of FSCatalogInfo's finderInfo; both keep finderFlags at offset 8.
// Copy the 16 bytes into one of them rather than casting the byte array.
struct FileInfo {
    OSType fileType;
    OSType fileCreator;
    UInt16 finderFlags;
    Point location;
    UInt16 reservedField;
};
struct FolderInfo {
    Rect windowBounds;
    UInt16 finderFlags;
    Point location;
    UInt16 reservedField;
};
static_assert(sizeof(FileInfo) == 16 && offsetof(FileInfo, finderFlags) == 8);
static_assert(sizeof(FolderInfo) == 16 && offsetof(FolderInfo, finderFlags) == 8);

struct FSCatalogInfo {
    UInt16 nodeFlags;
    FSVolumeRefNum volume;
    UInt32 parentDirID;
    UInt32 nodeID;
    UInt8 sharingFlags;
    UInt8 userPrivileges;
    UInt8 reserved1;
    UInt8 reserved2;
    UTCDateTime createDate;
    UTCDateTime contentModDate;
    UTCDateTime attributeModDate;
    UTCDateTime accessDate;
    UTCDateTime backupDate;
    FSPermissionInfo permissions;
    UInt8 finderInfo[16];
    UInt8 extFinderInfo[16];
    UInt64 dataLogicalSize;
    UInt64 dataPhysicalSize;
    UInt64 rsrcLogicalSize;
    UInt64 rsrcPhysicalSize;
    UInt32 valence;
    TextEncoding textEncodingHint;
};
static_assert(sizeof(FSCatalogInfo) == 144 && offsetof(FSCatalogInfo, createDate) == 16 &&
              offsetof(FSCatalogInfo, permissions) == 56 &&
              offsetof(FSCatalogInfo, finderInfo) == 72 &&
              offsetof(FSCatalogInfo, dataLogicalSize) == 104);

struct HFSUniStr255 {
    UInt16 length;
    UniChar unicode[255];
};
typedef struct FSSpec* FSSpecPtr;

namespace platform {
struct FSRefAccess;
}

// A reference to one file-system object. On a Mac it is 80 opaque bytes; here it owns a
// descriptor of the object (opened without following a final link: for reading where it is
// a regular file or folder that can be read, else O_PATH) taken when the reference is
// made, so a later rename or swap of the path does not redirect it. Mac code
// keeps references as locals and members and has no call to release them, so this one is
// move-only and closes its descriptor when destroyed or assigned over: such code neither
// leaks here nor changes on a Mac. A default-constructed or moved-from reference names
// nothing and is refused with errFSBadFSRef.
class FSRef {
  public:
    FSRef() noexcept = default;
    FSRef(FSRef&& other) noexcept;
    FSRef& operator=(FSRef&& other) noexcept;
    FSRef(const FSRef&) = delete;
    FSRef& operator=(const FSRef&) = delete;
    ~FSRef();

  private:
    friend struct platform::FSRefAccess;
    int m_fd = -1;
    UInt32 m_format = 0;    // the object's file type bits, fixed for its life
    bool m_opened = false;  // m_fd is open for reading, not O_PATH
};
typedef FSRef* FSRefPtr;

// The catalog information bits the stand-in answers; FSGetCatalogInfo refuses any other
// with errFSBadInfoBitmap, and FSSetCatalogInfo also refuses volume, node ID and sizes.
inline constexpr FSCatalogInfoBitmap kFSCatInfoNone = 0x0;
inline constexpr FSCatalogInfoBitmap kFSCatInfoNodeFlags = 0x2;
inline constexpr FSCatalogInfoBitmap kFSCatInfoVolume = 0x4;
inline constexpr FSCatalogInfoBitmap kFSCatInfoNodeID = 0x10;
inline constexpr FSCatalogInfoBitmap kFSCatInfoCreateDate = 0x20;
inline constexpr FSCatalogInfoBitmap kFSCatInfoContentMod = 0x40;
inline constexpr FSCatalogInfoBitmap kFSCatInfoAccessDate = 0x100;
inline constexpr FSCatalogInfoBitmap kFSCatInfoPermissions = 0x400;
inline constexpr FSCatalogInfoBitmap kFSCatInfoFinderInfo = 0x800;
inline constexpr FSCatalogInfoBitmap kFSCatInfoDataSizes = 0x4000;

inline constexpr UInt16 kFSNodeLockedBit = 0;
inline constexpr UInt16 kFSNodeLockedMask = 0x1;
inline constexpr UInt16 kFSNodeIsDirectoryBit = 4;
inline constexpr UInt16 kFSNodeIsDirectoryMask = 0x10;

inline constexpr UInt16 kIsInvisible = 0x4000;

inline constexpr OptionBits kFSPathMakeRefDefaultOptions = 0x0;
inline constexpr OptionBits kFSPathMakeRefDoNotFollowLeafSymlink = 0x1;

inline constexpr TextEncoding kTextEncodingUnknown = 0xFFFF;
inline constexpr FSVolumeRefNum kFSInvalidVolumeRefNum = 0;

// Results; a system error the table does not name comes back as ioErr.
inline constexpr OSErr dskFulErr = -34;        // ENOSPC, EDQUOT
inline constexpr OSErr ioErr = -36;            // any other error
inline constexpr OSErr bdNamErr = -37;         // a name that cannot be a single item's
inline constexpr OSErr tmfoErr = -42;          // EMFILE, ENFILE
inline constexpr OSErr fnfErr = -43;           // ENOENT
inline constexpr OSErr wPrErr = -44;           // EROFS
inline constexpr OSErr paramErr = -50;         // EINVAL, null arguments, unknown options
inline constexpr OSErr permErr = -54;          // EPERM
inline constexpr OSErr memFullErr = -108;      // ENOMEM
inline constexpr OSErr dirNFErr = -120;        // ENOTDIR on the way to the item
inline constexpr OSErr errFSBadFSRef = -1401;  // a reference that names nothing
inline constexpr OSErr errFSBadInfoBitmap = -1405;
inline constexpr OSErr errFSNotAFolder = -1407;  // a parent reference to a non-folder
inline constexpr OSErr afpAccessDenied = -5000;  // EACCES

// Makes a reference to the object at `path`. The stand-in never follows a final symbolic
// link, with or without kFSPathMakeRefDoNotFollowLeafSymlink: a reference to a link is to
// the link itself. Links before the last component are followed, as on a Mac.
OSStatus FSPathMakeRefWithOptions(const UInt8* path, OptionBits options, FSRef* ref,
                                  Boolean* isDirectory);

// Makes a reference to the child `name` (UTF-16, `nameLength` units) of the folder that
// `parentRef` names, without a path string and without following a final link. Names
// that are empty, ".", "..", hold '/' or NUL, or are not valid UTF-16 give bdNamErr; a
// parent that is not a folder (a link to one included) gives errFSNotAFolder. The name's
// bytes are used as given (UTF-8), not normalized. `textEncodingHint` is ignored.
OSErr FSMakeFSRefUnicode(const FSRef* parentRef, UniCharCount nameLength, const UniChar* name,
                         TextEncoding textEncodingHint, FSRef* newRef);

// Fills the fields of `whichInfo` (see the bits above); other fields are left alone.
// `outName`, `fsSpec` and `parentRef` must be null here (paramErr otherwise).
// nodeFlags: the directory bit, and the locked bit as last set. volume: a small negative
// number per device, handed out as devices are first seen. nodeID: the low 32 bits of
// the inode number. createDate: as last set, else the birth time, else the modification
// time. permissions: owner, group and mode. finderInfo: zero but for finderFlags.
// dataLogicalSize / dataPhysicalSize: 0 for a folder. A symbolic link, and a file system
// without user extended attributes, read the locked bit and Finder flags as 0.
OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap whichInfo, FSCatalogInfo* catalogInfo,
                       HFSUniStr255* outName, FSSpecPtr fsSpec, FSRef* parentRef);

// Writes the fields of `whichInfo`: node flags (only the locked bit is kept), the three
// dates (the access and modification dates to the fraction; the creation date to the
// second), the permissions' mode word (owner and group are not changed) and the Finder
// flags of finderInfo. Where a link or the file system cannot hold the locked bit, the
// creation date, the Finder flags or (a link) the mode, that part is skipped without
// failing.
OSErr FSSetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap whichInfo,
                       const FSCatalogInfo* catalogInfo);
