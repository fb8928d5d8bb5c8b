"""A foreign discovery service whose references and answers carry no code sets.

It answers `corbaloc` itself, without a forward. It keeps each name as the bytes that arrived.
"""

import itertools

from giop import (CollAttributes, CollectionDataIterator, Discovery, DiscoveryIterator,
                  DiscoveryService, DiscoveryStatus, RemoteWriter, Server)

# Names arrive as the bytes of the message, one character each.
RAW = "latin-1"


def raw(name):
    return name.encode(RAW)


class Foreign:
    """The service. The records that it was put are what it lists and returns.

    wrong(place): a test sets it to a function that raises, or returns a writer of a wrong answer,
    or None for a right one. The places are "page" and "data", each from the second page on.
    """

    def __init__(self):
        self.registered = []  # (service, host, subject, authority)
        self.asked = []       # (authority, subject) of each query, (subject, authority) of each read
        self.records = {}     # {(subject, authority): data}
        self.wrong = lambda place: None
        self._numbers = itertools.count()
        self._server = Server("127.0.0.1")
        self._server.add(b"DiscoveryService", DiscoveryService.TYPE_ID, self._service)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._server.close()

    @property
    def endpoint(self):
        return "%s:%d" % (self._server.host, self._server.port)

    def _object(self, kind, function):
        return self._server.add(b"object%d" % next(self._numbers), kind.TYPE_ID,
                                lambda *request: self._common(*request) or function(*request))

    @staticmethod
    def _common(operation, _):
        return {"_non_existent": lambda e: e.boolean(False),
                "_is_a": lambda e: e.boolean(True)}.get(operation)

    def _service(self, operation, arguments):
        arguments.encoding = RAW
        common = self._common(operation, arguments)
        return common or getattr(self, "_" + operation)(arguments)

    def _registerExplorer(self, arguments):
        self.registered.append(tuple(raw(arguments.string()) for _ in range(4)))
        return lambda e: None

    def _queryDiscoveries(self, arguments):
        arguments.ulong()
        arguments.ulong()
        asked = raw(arguments.string()), raw(arguments.string())
        self.asked.append(asked)
        names = list(self.records)
        pages = iter([names[:1], names[1:]])
        count = itertools.count()

        def answer(operation, _):
            if operation != "getNextPage":
                return lambda e: None
            wrong = self.wrong("page") if next(count) else None
            return wrong or self._page(next(pages, []))
        return self._object(DiscoveryIterator, answer).encode

    @staticmethod
    def _page(names):
        def fill(encoder):
            encoder.ulong(len(names))
            for subject, authority in names:
                Discovery(0, subject, authority, 3, CollAttributes(), "foreign",
                          "DiscoveryService").encode(encoder)
        return fill

    def _getCollectionData(self, arguments):
        record = Discovery.decode(arguments)
        names = raw(record.subject), raw(record.authority)
        self.asked.append(names)
        if names not in self.records:
            return lambda e: e.ulong(DiscoveryStatus.DS_NONE_FOUND).string("").ulong(0)
        data = self.records[names]
        middle = (len(data) + 1) // 2
        pages = iter([data[:middle], data[middle:]])
        count = itertools.count()

        def answer(operation, _):
            if operation != "getNextPage":
                return lambda e: None
            wrong = self.wrong("data") if next(count) else None
            page = next(pages, b"")
            return wrong or (lambda e: e.octets(page))
        iterator = self._object(CollectionDataIterator, answer)
        return lambda e: (e.ulong(DiscoveryStatus.DS_SUCCESS), iterator.encode(e))

    def _putCollection(self, arguments):
        record = Discovery.decode(arguments)
        names = raw(record.subject), raw(record.authority)
        data = bytearray()

        def answer(operation, request):
            if operation == "put":
                data.extend(request.octets())
                return lambda e: e.boolean(True)
            self.records[names] = bytes(data)
            return lambda e: e.ulong(DiscoveryStatus.DS_SUCCESS).ulonglong(0)
        writer = self._object(RemoteWriter, answer)
        return lambda e: (e.ulong(DiscoveryStatus.DS_SUCCESS).ulonglong(0), writer.encode(e))
