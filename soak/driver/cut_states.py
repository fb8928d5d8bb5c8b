"""What a power cut leaves of a record, and whether it may. docs/formats.md has the tables."""

from stamp import matches


NOTHING = (0, -1)  # no document and no payload has this version


def state_of(record, has_document, priority, payload):
    """What a cut has left of a record with puts in flight: a word, and whether it may be so. The
    generation of a document is its priority; payload is a version, or None."""
    allowed = [record.stored or NOTHING] + record.pending  # the old version first
    payloads = [place for place, each in enumerate(allowed) if payload and matches(payload, each)]
    if payload is None and record.stored:
        return "no payload", False
    if payload is not None and not payloads:
        return "a foreign payload", False
    if not has_document:
        return ("nothing" if payload is None else "a payload alone"), record.stored is None
    if priority is None:
        # A stored document has less than a sector, and the store never changes it and its length at
        # once. So it stays whole.
        return "a document that is not whole", record.stored is None
    documents = [place for place, each in enumerate(allowed) if each[0] == priority]
    if not documents:
        return "a foreign document", False
    document = documents[0]
    if payload is None:
        return "a document alone", True
    if document in payloads:
        return ("new" if document else "old"), True
    if min(payloads) < document:
        return "a new document with an old payload", True
    return "an old document with a new payload", False
