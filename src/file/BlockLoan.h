/// @file BlockLoan.h
/// A cached block whose bytes somebody reads in place for longer than one call.

#ifndef FATLIB_BLOCKLOAN_H
#define FATLIB_BLOCKLOAN_H

struct BLOCK_LOAN;

class CBlockBorrower {
 public:
  /// The block is about to change or to leave the cache: the borrower takes a copy, if it can have memory for one.
  virtual void EndLoan(BLOCK_LOAN& loan) = 0;

 protected:
  ~CBlockBorrower() = default;
};

/// The part of a cached block that a borrower gets hold of.
struct BLOCK_LOAN {
  CBlockBorrower* pBorrower = nullptr;  // set by the borrower, who sets it back when it needs the bytes no more

  void End() {
    if (pBorrower != nullptr) pBorrower->EndLoan(*this);
    pBorrower = nullptr;
  }
};

#endif  // FATLIB_BLOCKLOAN_H
