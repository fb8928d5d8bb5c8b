"""The failures of a call."""


class GiopError(Exception):
    """The peer sent something that GIOP does not allow here."""


COMPLETION = ("YES", "NO", "MAYBE")


class SystemException(Exception):
    """A CORBA system exception from a reply."""

    def __init__(self, repository_id, minor, completed):
        self.repository_id = repository_id
        self.minor = minor
        self.completed = completed
        super().__init__("%s minor 0x%x completed %s" % (self.name, minor, completed))

    @property
    def name(self):
        """For example "OBJECT_NOT_EXIST" from "IDL:omg.org/CORBA/OBJECT_NOT_EXIST:1.0"."""
        return self.repository_id.split("/")[-1].split(":")[0]

    def encode(self, body):
        body.string(self.repository_id).ulong(self.minor)
        body.ulong(COMPLETION.index(self.completed))

    @classmethod
    def decode(cls, body):
        repository_id = body.string()
        minor = body.ulong()
        completed = body.ulong()
        if completed >= len(COMPLETION):
            raise GiopError("completion status %d" % completed)
        return cls(repository_id, minor, COMPLETION[completed])
