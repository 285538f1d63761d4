#pragma once

class HFSPlusBTreeFile;

/** Changes to a tree that are kept together or not at all.
 *
 *  Whatever was changed since its creation is taken back when it goes without commit(). Writes
 *  are held meanwhile, so that nothing half done reaches the disk; nothing may be flushed, and
 *  no node taken before may be held. One transaction of a tree at a time.
 */
class HFSPlusBTreeTransaction {
public:
    explicit HFSPlusBTreeTransaction(HFSPlusBTreeFile& btree);
    HFSPlusBTreeTransaction(const HFSPlusBTreeTransaction&) = delete;
    HFSPlusBTreeTransaction& operator=(const HFSPlusBTreeTransaction&) = delete;
    ~HFSPlusBTreeTransaction();

    void commit();

private:
    HFSPlusBTreeFile* _btree;  // null once committed
};
