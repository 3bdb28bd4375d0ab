/* A host in C: the interface header alone, no C++. It finds every function there, and what they answer without a
 * volume. */

#include <fatlib/FatLibIntf.h>
#include <stddef.h>
#include <stdio.h>

_Static_assert(sizeof(WIN_FIND_DATA) == 592, "the record has the same size in C");
_Static_assert(offsetof(WIN_FIND_DATA, cAlternateFileName) == 564, "and the same layout");

static int s_Failures;

static void Expect(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "not so: %s\n", what);
  ++s_Failures;
}
#define EXPECT(condition) Expect((condition), #condition)

int main(void) {
  unsigned short path[] = {'A', 0};
  unsigned char byte = 0;
  unsigned int number = 0;
  WIN_FIND_DATA data = {0};

  Fat_LibInitialize();
  EXPECT(Fat_Mount(NULL, NULL) == NULL);
  SetCurrentFileSystem(NULL);
  EXPECT(Fat_OpenFile(path) == -1);
  EXPECT(Fat_CreateFile(path, 0, 0) == -1);
  EXPECT(Fat_CloseFile(0) == 0);
  EXPECT(Fat_GetFileSize(0, &number) == 0);
  EXPECT(Fat_SetFileSize(0, 0) == 0);
  EXPECT(Fat_ReadFileEx(0, 0, 1, &byte, &number) == 0);
  EXPECT(Fat_WriteFileEx(0, 0, 1, &byte, &number) == 0);
  EXPECT(Fat_GetFileOffset(0, &number) == 0);
  EXPECT(Fat_SetFileOffset(0, 0, 0) == 0);
  EXPECT(Fat_ReadFile(0, 1, &byte, &number) == 0);
  EXPECT(Fat_WriteFile(0, 1, &byte, &number) == 0);
  EXPECT(Fat_IsDir(0) == 0);
  EXPECT(Fat_GetFileAttribute(0, &data) == 0);
  EXPECT(Fat_SetFileAttribute(0, &data) == 0);
  EXPECT(Fat_DeleteFile(path) == 0);
  EXPECT(Fat_RenameFile(path, path) == 0);
  EXPECT(Fat_MoveFile(path, NULL) == 0);
  EXPECT(Fat_CreateDir(path, 0) == 0);
  EXPECT(Fat_FindFirstFile(path, &data) == -1);
  EXPECT(Fat_FindNextFile(0, &data) == 0);
  EXPECT(Fat_CloseFindHandle(0) == 0);
  EXPECT(Fat_Unmount(NULL) == 0);
  EXPECT(Fat_LibTerminate() == 1);
  return s_Failures == 0 ? 0 : 1;
}
