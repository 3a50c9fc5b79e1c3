// Sends the file forms of the site (class "upload") with a boundary in lower case. tessel
// finds the parts of a multipart body by searching the lower-cased body for the boundary as
// the request names it, so a boundary with capital letters, which some browsers choose,
// yields no fields. The answer replaces the page, as a plain form submission would.
document.querySelectorAll('form.upload').forEach(function (form) {
  form.addEventListener('submit', async function (event) {
    event.preventDefault();
    var boundary = '----tessel' + Math.random().toString(16).slice(2) + Date.now().toString(16);
    var parts = [];
    new FormData(form).forEach(function (value, name) {
      var head = '--' + boundary + '\r\nContent-Disposition: form-data; name="' + name + '"';
      if (value instanceof File) {
        head += '; filename="' + value.name.replace(/"/g, '') + '"\r\nContent-Type: ' +
          (value.type || 'application/octet-stream');
      }
      parts.push(head + '\r\n\r\n', value, '\r\n');
    });
    parts.push('--' + boundary + '--\r\n');
    var answer = await fetch(form.action, {
      method: 'POST',
      headers: { 'Content-Type': 'multipart/form-data; boundary=' + boundary },
      body: new Blob(parts)
    });
    var html = await answer.text();
    history.replaceState(null, '', answer.url);
    document.open();
    document.write(html);
    document.close();
  });
});
