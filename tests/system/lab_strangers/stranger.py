"""A fake discovery service on a host of the lab. The subject decides how it answers."""

import itertools

from giop import (NIL, CollAttributes, CollectionDataIterator, CollectionType, Discovery,
                  DiscoveryIterator, DiscoveryService, DiscoveryStatus, HangUp, RemoteWriter, Server,
                  SystemException)

PORT = 14400
GARBAGE = b"\xff" * 100


def no_memory():
    return SystemException("IDL:omg.org/CORBA/NO_MEMORY:1.0", 7, "NO")


class Stranger:
    """The fake service with its iterators and writers. `asked` lists the operations of the
    contract that it has answered, `failures` the texts of the connections that failed.

    redirects: {operation: a function}. The function gets the object's reference. It returns a
    Redirect, which is the answer, or None. `redirected` counts these answers.

    tls: an ssl.SSLContext. By default it is that of the host's certificate if the host has TLS.
    False is plain text.

    With a subject "PLACE_HOW" the answer at that place is wrong. The places are "query", "page",
    "get", "data", "put-collection", "put", "close" and "release". The ways are:

        throw    it throws NO_MEMORY
        hang-up  it closes the connection
        nil      it returns no object
        garbage  it sends bytes that do not encode the result
        half     it sends half a reply and closes the connection
        huge     it sends a sequence that claims 4 billion elements

    Some subjects give answers of their own: "refused" and "put_false" refuse a put; "page_endless",
    "page_nameless" and "page_odd" are lists with such records; "data_large", "data_doubled",
    "data_empty" and "data_endless" are such payloads.
    """

    def __init__(self, host, is_a=True, little=True, tls=None):
        self.asked = []
        self.redirects = {}
        self.redirected = 0
        self._is_a = is_a
        self._numbers = itertools.count()
        if tls is None and host.root.credentials:
            tls = host.root.credentials.as_server()
        self._server = Server(host.address, PORT, host.network, little, tls or None)
        self._add(b"DiscoveryService", DiscoveryService, self._service)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._server.close()

    @property
    def failures(self):
        return self._server.failures

    @property
    def connections(self):
        return self._server.accepted

    def _object(self, kind, function):
        return self._add(b"object%d" % next(self._numbers), kind, function)

    def _add(self, key, kind, function):
        def answer(operation, arguments):
            redirect = self.redirects.get(operation, lambda _: None)(reference)
            if redirect:
                self.redirected += 1
                raise redirect
            return function(operation, arguments)
        reference = self._server.add(key, kind.TYPE_ID, answer)
        return reference

    @staticmethod
    def _wrong(place, subject):
        """Returns a function that writes a wrong answer, or None for a right one. May raise."""
        where, _, how = subject.partition("_")
        if where != place:
            return None
        if how == "throw":
            raise no_memory()
        if how == "hang-up":
            raise HangUp
        if how == "half":
            raise HangUp(b"GIOP\x01\x02\x01\x01\x80\x00\x00\x00" + bytes(20))
        return {"garbage": lambda e: e.raw(GARBAGE),
                "huge": lambda e: e.ulong(0xFFFFFFFF)}.get(how)

    def _common(self, operation, arguments):
        """Answers the operations of every object. Returns None for all other operations."""
        if operation == "_non_existent":
            return lambda e: e.boolean(False)
        if operation == "_is_a":
            arguments.string()
            return lambda e: e.boolean(self._is_a)
        if operation == "_set_pageSize":
            arguments.ulong()
            return lambda e: None
        return None

    def _service(self, operation, arguments):
        common = self._common(operation, arguments)
        if common:
            return common
        self.asked.append(operation)
        return {"queryDiscoveries": self._query, "getCollectionData": self._get,
                "putCollection": self._put}[operation](arguments)

    def _query(self, arguments):
        arguments.ulong()
        arguments.ulong()
        arguments.string()
        subject = arguments.string()
        wrong = self._wrong("query", subject)
        if wrong:
            return wrong
        if subject == "query_nil":
            return NIL.encode
        return self._object(DiscoveryIterator, self._records(subject)).encode

    def _records(self, subject):
        state = {"pages": 0}

        def answer(operation, arguments):
            common = self._common(operation, arguments)
            if common:
                return common
            self.asked.append(operation)
            if operation == "release":
                self._wrong("release", subject)
                return lambda e: None
            state["pages"] += 1
            # The first page is right. The second may be wrong.
            if state["pages"] > 1:
                wrong = self._wrong("page", subject)
                if wrong:
                    return wrong
            if subject == "page_endless":
                return self._page(["s%d" % state["pages"]] * 9)
            if subject == "page_nameless":
                return self._page([""])
            if subject == "page_odd":
                return self._page([b"\xff\xfe not text", "a\nline"] if state["pages"] == 1 else [])
            return self._page([subject] if state["pages"] == 1 else [])
        return answer

    @staticmethod
    def _page(names):
        def fill(encoder):
            encoder.ulong(len(names))
            for name in names:
                Discovery(0, name, "a", 3, CollAttributes(CollectionType.CT_CONFIGURATION),
                          "stranger", "DiscoveryService").encode(encoder)
        return fill

    def _get(self, arguments):
        subject = Discovery.decode(arguments).subject
        wrong = self._wrong("get", subject)
        if wrong:
            return wrong
        if subject == "get_nil":
            return lambda e: (e.ulong(DiscoveryStatus.DS_SUCCESS), NIL.encode(e))
        data = self._object(CollectionDataIterator, self._data(subject))
        return lambda e: (e.ulong(DiscoveryStatus.DS_SUCCESS), data.encode(e))

    def _data(self, subject):
        pages = iter({"data_large": [b"x" * 2049], "data_doubled": [b"x" * 2048],
                      "data_empty": []}.get(subject, [b"12345678", b"9"]))
        state = {"pages": 0}

        def answer(operation, arguments):
            common = self._common(operation, arguments)
            if common:
                return common
            self.asked.append(operation)
            if operation == "release":
                self._wrong("release", subject)
                return lambda e: None
            state["pages"] += 1
            if state["pages"] > 1:
                wrong = self._wrong("data", subject)
                if wrong:
                    return wrong
            page = b"12345678" if subject == "data_endless" else next(pages, b"")
            return lambda e: e.octets(page)
        return answer

    def _put(self, arguments):
        subject = Discovery.decode(arguments).subject
        wrong = self._wrong("put-collection", subject)
        if wrong:
            return wrong
        writer = NIL if subject == "put-collection_nil" else \
            self._object(RemoteWriter, self._writer(subject))
        status = DiscoveryStatus.DS_DATA_EXISTS if subject == "refused" else \
            DiscoveryStatus.DS_SUCCESS
        return lambda e: (e.ulong(status).ulonglong(0), writer.encode(e))

    def _writer(self, subject):
        def answer(operation, arguments):
            common = self._common(operation, arguments)
            if common:
                return common
            self.asked.append(operation)
            wrong = self._wrong(operation, subject)
            if wrong:
                return wrong
            if operation == "put":
                return lambda e: e.boolean(subject != "put_false")
            return lambda e: e.ulong(DiscoveryStatus.DS_SUCCESS).ulonglong(0)
        return answer
