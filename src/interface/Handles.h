/// @file Handles.h
/// A fixed table of objects named by small integers. A handle is the index of its slot; a null slot is free.
///
/// Opening: FindFreeHandle, the object is stored through GetObjectPtr, then IncCount; ClearHandle instead when it
/// failed. Closing: IsHandleValid, GetObject, the close, RecycleHandle.

#ifndef FATLIB_HANDLES_H
#define FATLIB_HANDLES_H

template <class T, unsigned int N>
class CHandles {
 public:
  void Init() {
    m_nCount = 0;
    m_nFreeIdx = 0;
    for (T*& object : m_Objects) object = nullptr;
  }
  bool IsEmpty() const { return m_nCount == 0; }

  /// Finds the lowest free slot. It is not reserved.
  /// @return false when the table is full
  bool FindFreeHandle(int& handle) {
    if (m_nCount > N - 1) return false;
    while (m_Objects[m_nFreeIdx] != nullptr) ++m_nFreeIdx;
    handle = static_cast<int>(m_nFreeIdx);
    return true;
  }
  T** GetObjectPtr(int handle) { return &m_Objects[handle]; }
  void IncCount() { ++m_nCount; }
  void ClearHandle(int handle) { m_Objects[handle] = nullptr; }

  bool IsHandleValid(int handle) const {
    return handle >= 0 && handle < static_cast<int>(N) && m_Objects[handle] != nullptr;
  }
  T* GetObject(int handle) const { return m_Objects[handle]; }
  void RecycleHandle(int handle) {
    ClearHandle(handle);
    --m_nCount;
    if (m_nFreeIdx > static_cast<unsigned int>(handle)) m_nFreeIdx = static_cast<unsigned int>(handle);
  }

 private:
  unsigned int m_nCount;    // handles in use
  unsigned int m_nFreeIdx;  // where the search for a free slot starts: every slot below is in use
  T* m_Objects[N];
};

#endif  // FATLIB_HANDLES_H
