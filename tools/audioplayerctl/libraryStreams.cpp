/** The streams of the library. */

#include "libraryPrivate.h"

namespace
{

constexpr size_t MAX_NAME_BYTES = 127;
constexpr size_t MAX_URL_BYTES = 1024; ///< the player cuts a longer one

void expectStreamName(const std::string& name)
{
    if (name.empty() || name.size() > MAX_NAME_BYTES)
        throw Failure(EXIT_REFUSED, "a stream's name has 1 to 127 bytes");
}

void expectUrlLength(const std::string& url)
{
    if (url.size() > MAX_URL_BYTES)
        throw Failure(EXIT_REFUSED, "the URL is longer than 1024 bytes");
}

} // namespace

std::vector<StreamRow> Library::streams()
{
    Query query(db,
                "SELECT m.id, m.name, m.stream_type_id, m.uri, m.channel, m.dst, s.id FROM T_Streams m LEFT JOIN "
                "T_Audio_Sources s ON s.player_id = m.id AND s.source_type_id = (SELECT id FROM T_Audio_Source_Types "
                "WHERE name = 'STR_STREAM') ORDER BY m.id;",
                "list_streams");
    std::vector<StreamRow> rows;
    while (query.next())
        rows.push_back({query.number(0), query.text(1), query.number(2), query.text(3), query.number(4),
                        query.number(5), query.number(6)});
    return rows;
}

StreamRow Library::stream(int streamId)
{
    for (const StreamRow& row : streams())
        if (row.id == streamId)
            return row;
    throw Failure(EXIT_NOT_FOUND, "there is no stream " + std::to_string(streamId));
}

int Library::findStream(const std::string& idOrName)
{
    return findByIdOrName(idOrName, "SELECT id FROM T_Streams WHERE id = ?;",
                          "SELECT id FROM T_Streams WHERE name = ?;", "stream");
}

std::optional<StreamRow> Library::streamOf(int sourceId)
{
    for (const StreamRow& row : streams())
        if (row.sourceId == sourceId)
            return row;
    return std::nullopt;
}

void Library::expectNoSource(const std::string& name)
{
    Query query(db, "SELECT 1 FROM T_Audio_Sources WHERE player_name = ?;", "find_source_by_name");
    query.bind(1, name);
    if (query.next())
        throw Failure(EXIT_REFUSED, "there is a source \"" + name + "\" already");
}

StreamRow Library::addStream(const StreamRow& wanted)
{
    expectStreamName(wanted.name);
    expectUrlLength(wanted.url);
    Transaction transaction(*this);
    expectNoSource(wanted.name);
    expectDone(database.insert_stream(wanted.name.c_str(), wanted.type, wanted.url.c_str(), wanted.channel, wanted.dst),
               "add the stream");
    const StreamRow added = stream(static_cast<int>(sqlite3_last_insert_rowid(db)));
    transaction.commit();
    return added;
}

void Library::editStream(const StreamRow& wanted)
{
    expectStreamName(wanted.name);
    expectUrlLength(wanted.url);
    Transaction transaction(*this);
    const StreamRow old = stream(wanted.id);
    if (wanted.name != old.name)
        expectNoSource(wanted.name);
    expectDone(database.update_stream(wanted.id, wanted.name.c_str(), wanted.type, wanted.url.c_str(), wanted.channel,
                                      wanted.dst),
               "change the stream");
    // The triggers copy the name once, when the stream is made; "start" finds it by the copy.
    Query rename(db, "UPDATE T_Audio_Sources SET player_name = ? WHERE id = ?;", "rename_source");
    rename.bind(1, wanted.name).bind(2, old.sourceId).next();
    transaction.commit();
}

void Library::removeStream(int streamId)
{
    Transaction transaction(*this);
    expectDone(database.delete_stream(streamId), "remove the stream");
    transaction.commit();
}
