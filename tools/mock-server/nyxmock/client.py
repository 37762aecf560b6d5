"""The client of the server's /admin/ interface, for nyx-mock and for
programs that drive the server themselves."""

import json
import ssl
import urllib.error
import urllib.parse
import urllib.request


class Failure(Exception):
    def __init__(self, message, code=1):
        super().__init__(message)
        self.code = code


class Client:
    """Calls on the server at `url`; an https URL is checked against `cafile`."""

    def __init__(self, url, cafile, timeout):
        self.url = url.rstrip("/")
        self.timeout = timeout
        self.context = None
        if self.url.startswith("https://"):
            self.context = ssl.create_default_context(cafile=cafile)

    def call(self, method, path, doc=None, query=None):
        url = self.url + path
        encoded = urllib.parse.urlencode({k: v for k, v in (query or {}).items() if v is not None})
        if encoded:
            url += "?" + encoded
        data = None if doc is None else (
            doc.encode() if isinstance(doc, str) else json.dumps(doc).encode())
        request = urllib.request.Request(url, data=data, method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=self.timeout,
                                        context=self.context) as reply:
                body = reply.read()
        except urllib.error.HTTPError as e:
            body = e.read()
            try:
                message = json.loads(body).get("error") or body.decode(errors="replace")
            except (ValueError, AttributeError):
                message = body.decode(errors="replace")
            raise Failure("server answered %d to %s %s: %s" % (e.code, method, path, message))
        except (urllib.error.URLError, OSError) as e:
            reason = getattr(e, "reason", e)
            hint = " (give the CA with --cafile or --ready-file)" \
                if isinstance(reason, ssl.SSLError) else ""
            raise Failure("cannot reach the mock server at %s: %s%s" % (self.url, reason, hint),
                          code=2)
        try:
            return json.loads(body)
        except ValueError:
            raise Failure("server answered %s %s with a body that is not JSON" % (method, path))
