#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/** The rules of one kind of tree: what its keys look like and how they sort.
 *
 *  A key is its bytes on disk, the length field first; keys that compare() is given are valid.
 */
class HFSPlusCheckKeyRule {
public:
    using Key = std::span<const uint8_t>;

    virtual ~HFSPlusCheckKeyRule() = default;
    [[nodiscard]] virtual const char* treeName() const = 0;
    [[nodiscard]] virtual uint32_t minimumNodeSize() const = 0;
    [[nodiscard]] virtual uint32_t maxKeyLength() const = 0;
    /** Tree attribute bits that must be set, of bits 1 and 2. */
    [[nodiscard]] virtual uint32_t treeAttributes() const = 0;
    /** Whether @p key, which has as many bytes as its length field says, is well formed. */
    [[nodiscard]] virtual bool isValid(Key key) const = 0;
    /** Negative, 0 or positive, as @p left sorts before, with or after @p right. */
    [[nodiscard]] virtual int compare(Key left, Key right) const = 0;
};

/** Catalog keys: parent, then name, folded or binary. */
class HFSPlusCheckCatalogKeyRule final : public HFSPlusCheckKeyRule {
public:
    explicit HFSPlusCheckCatalogKeyRule(bool isBinary) : _isBinary(isBinary) {}
    [[nodiscard]] const char* treeName() const override { return "catalog"; }
    [[nodiscard]] uint32_t minimumNodeSize() const override { return 4096; }
    [[nodiscard]] uint32_t maxKeyLength() const override { return 516; }
    [[nodiscard]] uint32_t treeAttributes() const override { return 6; }
    [[nodiscard]] bool isValid(Key key) const override;
    [[nodiscard]] int compare(Key left, Key right) const override;

private:
    bool _isBinary;
};

/** Extents overflow keys: file, fork, fork block. */
class HFSPlusCheckExtentsKeyRule final : public HFSPlusCheckKeyRule {
public:
    [[nodiscard]] const char* treeName() const override { return "extents"; }
    [[nodiscard]] uint32_t minimumNodeSize() const override { return 512; }
    [[nodiscard]] uint32_t maxKeyLength() const override { return 10; }
    [[nodiscard]] uint32_t treeAttributes() const override { return 2; }
    [[nodiscard]] bool isValid(Key key) const override;
    [[nodiscard]] int compare(Key left, Key right) const override;
};

/** Attribute keys: file, name as raw units, then the attribute's block. */
class HFSPlusCheckAttributesKeyRule final : public HFSPlusCheckKeyRule {
public:
    [[nodiscard]] const char* treeName() const override { return "attributes"; }
    [[nodiscard]] uint32_t minimumNodeSize() const override { return 4096; }
    [[nodiscard]] uint32_t maxKeyLength() const override { return 266; }
    [[nodiscard]] uint32_t treeAttributes() const override { return 6; }
    [[nodiscard]] bool isValid(Key key) const override;
    [[nodiscard]] int compare(Key left, Key right) const override;
};

/** The unit that @p unit folds to: itself, another, or 0 when comparisons skip it. */
[[nodiscard]] uint16_t checkedFoldedUnit(uint16_t unit);
