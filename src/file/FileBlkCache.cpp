/// @file FileBlkCache.cpp
/// The block cache of file objects, compiled once.

#include "file/FileBlkCache.h"

#include "file/FatFile.h"

template class CFileBlkCache<CFatFile>;
