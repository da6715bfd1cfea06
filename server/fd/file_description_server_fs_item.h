// The open file description of a host file-system item, as descriptor tables hold it. It serves
// the item over a multiplex of its own ("FSItemDescr") and lists on its node, in this order:
// the item's byte stream (stream resolver), the stream adapter, the seekable adapter when the
// item can seek, the resizable adapter when it can be resized, and the item service that
// describes it. Clients find each service by its interface type.
//
// The stream services serve the item through an ItemStream, which lets go of the item when the
// description dies: the host file closes with the last descriptor (unless a seek or resize
// adapter, which only regular files and devices have, holds it until the close queue has
// stopped the multiplex). The item service holds the description only weakly, so that the
// description lives exactly as long as some descriptor refers to it.
#pragma once

#include "fd/file_description_server.h"
#include "fd/item_stream.h"
#include "platform/local_file.h"

class FileDescriptionServerFSItem : public Object, public virtual FileDescriptionServer {
 public:
  // What the item's stream resolver is made with.
  static constexpr uint64_t kResolverValue = 1024;

  // Null when `item` is null or the multiplex or the node could not be made.
  static Ref<FileDescriptionServerFSItem> create(Ref<LocalFileDescriptionFSItem> item);

  // The item's own type code (regular file, directory, ...).
  int32_t type() const override { return item_->descriptionType(); }
  const Ref<LocalFileDescriptionFSItem>& item() const { return item_; }
  // The stream its services serve, which knows why the last transfer moved nothing.
  const Ref<ItemStream>& stream() const { return stream_; }

  ~FileDescriptionServerFSItem() override;

 private:
  explicit FileDescriptionServerFSItem(Ref<LocalFileDescriptionFSItem> item)
      : item_(std::move(item)), stream_(ItemStream::create(item_)) {}
  // Adds the item's services to the multiplex and lists them on the node.
  void publish();
  // Adds one service (its own connection manager, behind the holders' gate) and lists it; a
  // service that could not be made or added is left off the node.
  template <class S>
  void list(const Ref<S>& service, uint64_t interfaceType, uint64_t access);

  Ref<LocalFileDescriptionFSItem> item_;  // set in the constructor, released first on destruction
  Ref<ItemStream> stream_;  // set in the constructor, released with item_
};
