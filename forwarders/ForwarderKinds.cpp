#include "forwarders/ForwarderKinds.h"

#include "forwarders/DuosDataForwarder.h"
#include "forwarders/ExtendedRawDataForwarder.h"
#include "forwarders/FileDataForwarder.h"
#include "forwarders/GcpDataForwarder.h"
#include "forwarders/PubSubDataForwarder.h"
#include "forwarders/RawDataForwarder.h"
#include "forwarders/StreamDataForwarder.h"

namespace {

template <typename Forwarder>
DataForwarder *newForwarder(int id)
{
    return new Forwarder(nullptr, id);
}

struct ForwarderKind
{
    QLatin1String type;
    DataForwarder *(*create)(int id);
};

const ForwarderKind kinds[] = {
    {QLatin1String("DUOS"), newForwarder<DuosDataForwarder>},
    {QLatin1String("FILE"), newForwarder<FileDataForwarder>},
    {QLatin1String("RAW"), newForwarder<RawDataForwarder>},
    {QLatin1String("ERAW"), newForwarder<ExtendedRawDataForwarder>},
    {QLatin1String("GCP"), newForwarder<GcpDataForwarder>},
    {QLatin1String("STREAM"), newForwarder<StreamDataForwarder>},
    {QLatin1String("PUBSUB"), newForwarder<PubSubDataForwarder>},
};

} // namespace

QSharedPointer<DataForwarder> createForwarder(const DataForwarderConfig &config)
{
    for (const ForwarderKind &kind : kinds) {
        if (config.type == kind.type)
            return QSharedPointer<DataForwarder>(kind.create(config.ids));
    }
    return {};
}
