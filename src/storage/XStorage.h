/// @file XStorage.h
/// The storage objects: the lowest layer, through which every byte of a volume is read and written.
///
/// A host makes a CFatPartition (device or image file) or a CFatMemory (image in memory) with plain `new` and hands it
/// to Fat_Mount with the parameter for its OpenDevice. To bring another medium, derive from CFatStorage or from one of
/// the two back-ends, override OpenDevice and CloseDevice, and install your six transfer functions in HookIoFunctions:
///
///     class CMyStorage : public CFatStorage {
///      public:
///       int OpenDevice(void* parameter) override;   // 0 or a negative status
///       int CloseDevice() override;                 // 1
///       void HookIoFunctions() override;            // m_pfnGetMpb = &CFatStorage::_GetMpb, and the six below
///     };
///
/// Rules for transfer functions: byte 0 is the boot sector; a negative result is a failure, zero or more a success;
/// nothing beyond the requested bytes of the buffer may be touched; the part of a read that could not be delivered is
/// zeroed. They are called from one thread, one at a time, between Open and Close.
///
/// The objects have no virtual destructor. After Fat_Unmount a host frees its object by `delete` through a pointer to
/// the very class it made, or with the global operator delete; after a failed Fat_Mount the library has done the
/// latter.

#ifndef FATLIB_XSTORAGE_H
#define FATLIB_XSTORAGE_H

#include <cstdint>

#ifndef FATLIB_API
#if defined(__GNUC__)
#define FATLIB_API __attribute__((visibility("default")))
#else
#define FATLIB_API
#endif
#endif

/// A medium that holds one volume. Positions are absolute from the medium's first byte and 64 bits wide.
class FATLIB_API CVolumeStorage {
 public:
  /// Transfers `count` bytes or sectors at `position` (in the same unit). Negative: failure.
  using IO_FUNCTION = int (*)(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  /// Fills a volume parameter block from a boot sector.
  using MPB_FUNCTION = void (*)(void* bootSector, void* mpb);

  // The five operations that a back-end supplies, in slot order.

  /// Opens the device. @return 0, or a negative status; then nothing stays open.
  virtual int OpenDevice(void* device) = 0;
  /// Closes what OpenDevice opened. @return 1.
  virtual int CloseDevice() = 0;
  /// Judges the first 2048 bytes of the medium; may change the buffer, never the medium.
  virtual bool IsDbrOk(void* dbr) = 0;
  /// @return the sector size in bytes that the boot sector states.
  virtual unsigned int GetBytesPerSector(void* dbr) = 0;
  /// Installs the seven functions below.
  virtual void HookIoFunctions() = 0;

  /// Opens the device, reads and checks the boot sector, and sets the sector size from it. Needs no earlier state:
  /// every member is set here.
  /// @return 0, or negative: the result of OpenDevice or of the read, 0xC0000017 without memory, 0xC000014F when the
  ///         boot sector is refused. After a failure past OpenDevice the device is left open, and Close must not be
  ///         called.
  [[nodiscard]] int Open(void* device);
  /// Frees the sector buffer and closes the device. @return the result of CloseDevice.
  int Close();

  /// Sets the sector size (a power of two, in bytes) and its logarithm. The name's spelling is part of the interface.
  void CaclSectorShift(unsigned int bytes);
  /// @return the sector size in bytes, once Open has succeeded
  unsigned int BytesPerSector() const { return m_nBytesPerSector; }
  /// Reads the first 2048 bytes of the medium into `buffer`.
  [[nodiscard]] int ReadDbr(void* buffer);
  /// Fills a volume parameter block from the boot sector that Open read. Valid only before the first transfer after
  /// Open, which may reuse the buffer.
  void GetMpb(void* mpb);

  /// Transfers: `position` and `count` in bytes; in sectors for the last two. The aligned forms take multiples of the
  /// sector size. A negative result is a failure, any other a success (a back-end may return a byte count).
  /// @{
  [[nodiscard]] int ReadBytes(unsigned char* buffer, long long position, unsigned int count);
  [[nodiscard]] int WriteBytes(unsigned char* buffer, long long position, unsigned int count);
  [[nodiscard]] int ReadBytesAligned(unsigned char* buffer, long long position, unsigned int count);
  [[nodiscard]] int WriteBytesAligned(unsigned char* buffer, long long position, unsigned int count);
  [[nodiscard]] int ReadSectors(unsigned char* buffer, long long position, unsigned int count);
  [[nodiscard]] int WriteSectors(unsigned char* buffer, long long position, unsigned int count);
  /// @}

 protected:
  // Set by Open. A derived back-end may read all of them; it sets m_hDevice, if it has a use for it, in OpenDevice and
  // the functions in HookIoFunctions.
  std::intptr_t m_hDevice = 0;  ///< the device: a file descriptor, or the address of the image as a number
  /// The boot sector, later the one-sector scratch buffer of CFatPartition; null if closed.
  unsigned char* m_pDbrBuf = nullptr;
  unsigned int m_nSectorShift = 0;     ///< log2 of the sector size
  unsigned int m_nBytesPerSector = 0;  ///< sector size in bytes
  /// What HookIoFunctions installs.
  /// @{
  MPB_FUNCTION m_pfnGetMpb = nullptr;
  IO_FUNCTION m_pfnReadBytes = nullptr;
  IO_FUNCTION m_pfnWriteBytes = nullptr;
  IO_FUNCTION m_pfnReadBytesAligned = nullptr;
  IO_FUNCTION m_pfnWriteBytesAligned = nullptr;
  IO_FUNCTION m_pfnReadSectors = nullptr;
  IO_FUNCTION m_pfnWriteSectors = nullptr;
  /// @}
  unsigned long long m_nVolumeBytes = 0;  ///< size of the volume by its boot sector; all ones until it is known
};

/// A medium whose first sector is a FAT boot sector.
class FATLIB_API CFatStorage : public CVolumeStorage {
 public:
  /// Twelve checks of the boot sector: signature, jump byte, sector size 128 to 4096, cluster size, reserved sectors,
  /// FATs, totals, FAT sizes, FAT32 version and mirroring, media byte, root entries. Nothing else is looked at.
  /// A volume that gives both a 16-bit and a 32-bit count of sectors is sized by the former: the latter is cleared in
  /// the buffer.
  bool IsDbrOk(void* dbr) override;
  unsigned int GetBytesPerSector(void* dbr) override;

  /// The m_pfnGetMpb of every FAT back-end.
  static void _GetMpb(void* dbr, void* mpb);
};

/// A whole volume image in the host's memory. The parameter of OpenDevice is the image's address; the image must be
/// writable and stay in place until unmount. Its length is not told to the library: the memory must hold at least 512
/// bytes, and as many as the boot sector says, that is, its count of sectors (16 bits at offset 19 or, when those are
/// 0, 32 bits at offset 32) times the sector size (16 bits at offset 11). Check that before mounting an image from
/// elsewhere. Once the boot sector is known, a transfer that passes the end of the volume by the boot sector's count of
/// sectors fails with 0xC0000185 and touches nothing.
class FATLIB_API CFatMemory : public CFatStorage {
 public:
  int OpenDevice(void* device) override;
  int CloseDevice() override;
  void HookIoFunctions() override;

 protected:
  /// The transfer functions of this back-end, which a derived one may call or install again. As those of
  /// CVolumeStorage, with the storage object first.
  /// @{
  static int _ReadBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _ReadBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _ReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  /// @}

 private:
  // Where the bytes lie in the image; null when they pass its end.
  unsigned char* ImageAt(long long position, unsigned int count) const;
};

/// A device or image file. The parameter of OpenDevice is its zero-terminated path; it is opened for reading and
/// writing and must hold the boot sector at its first byte (partition tables are not read). A read that ends early, at
/// the end of the file, is no failure: the rest of the buffer is zeroed. A write that ends early is not noticed either.
/// A failing read or write gives -1.
class FATLIB_API CFatPartition : public CFatStorage {
 public:
  int OpenDevice(void* device) override;
  int CloseDevice() override;
  void HookIoFunctions() override;

 protected:
  /// The transfer functions of this back-end, which a derived one may call or install again. As those of
  /// CVolumeStorage, with the storage object first.
  /// @{
  static int _ReadBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _ReadBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _ReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  /// @}

 private:
  int Transfer(bool write, unsigned char* buffer, long long sector, unsigned int count) const;
  int TransferScratch(bool write, long long sector) const;
};

#endif  // FATLIB_XSTORAGE_H
